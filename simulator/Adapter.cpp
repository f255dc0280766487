#include "simulator/Adapter.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Simulator {

namespace {

std::vector<Property> describe(const AdapterPlan& plan) {
    NamedValues values{
        {"Address", Value::string(plan.address)},
        {"AddressType", Value::string("public")},
        {"Name", Value::string(plan.alias)},
        {"Alias", Value::string(plan.alias)},
        {"Class", Value::uint32(0x6c010c)},
        {"Powered", Value::boolean(plan.powered)},
        {"Discoverable", Value::boolean(false)},
        {"DiscoverableTimeout", Value::uint32(180)},
        {"Pairable", Value::boolean(true)},
        {"PairableTimeout", Value::uint32(0)},
        {"Discovering", Value::boolean(false)},
        {"UUIDs", Value::strings({"00001800-0000-1000-8000-00805f9b34fb", "00001801-0000-1000-8000-00805f9b34fb",
                                  "0000110c-0000-1000-8000-00805f9b34fb", "0000110e-0000-1000-8000-00805f9b34fb",
                                  "00001200-0000-1000-8000-00805f9b34fb"})},
        {"Modalias", Value::string("usb:v1D6Bp0246d0542")},
        {"Roles", Value::strings({"central", "peripheral"})},
    };
    put(values, plan.properties);
    std::vector<Property> properties;
    for (auto& [name, value] : values) properties.push_back({name, std::move(value), {}});
    return properties;
}

}  // namespace

Adapter::Adapter(World& world, const AdapterPlan& plan) : world_(world), path_("/org/bluez/" + plan.name) {
    world_.objects.add(path_, {kAdapter1, describe(plan)},
                       {{"org.bluez.GattManager1", {}}, {"org.bluez.Media1", {}}, {"org.bluez.NetworkServer1", {}}});
    world_.narrator.event(fmt::format("{} appears: \"{}\"", path_, plan.alias));
    if (plan.poweredAfter) powering_ = world_.loop.after(*plan.poweredAfter, [this] { setPowered(true); });
}

Adapter::~Adapter() {
    devices_.clear();
    world_.narrator.event(fmt::format("{} goes away", path_));
    world_.objects.remove(path_);
}

const MethodTable<Adapter>& Adapter::methods() {
    static const MethodTable<Adapter> kMethods(kAdapter1,
                                               {{{"StartDiscovery", "", ""}, &Adapter::startDiscovery},
                                                {{"StopDiscovery", "", ""}, &Adapter::stopDiscovery},
                                                {{"SetDiscoveryFilter", "a{sv}", ""}, &Adapter::setDiscoveryFilter},
                                                {{"GetDiscoveryFilters", "", "as"}, &Adapter::getDiscoveryFilters},
                                                {{"RemoveDevice", "o", ""}, &Adapter::removeDevice}});
    return kMethods;
}

char Adapter::writableType(const std::string& property) {
    if (property == "Alias") return 's';
    if (property == "Powered" || property == "Discoverable" || property == "Pairable") return 'b';
    if (property == "DiscoverableTimeout" || property == "PairableTimeout") return 'u';
    return '\0';
}

void Adapter::write(const std::string& property, const Value& value) {
    if (property == "Powered") {
        setPowered(value.isTrue());
    } else {
        set(property.c_str(), value);
    }
}

bool Adapter::isPowered() const {
    const Value* powered = world_.objects.get(path_, kAdapter1, "Powered");
    return powered && powered->isTrue();
}

void Adapter::setPowered(bool isOn) {
    powering_.stop();
    if (isOn == isPowered()) return;
    world_.narrator.event(fmt::format("{} is powered {}", path_, isOn ? "on" : "off"));
    NamedValues changed{{"Powered", Value::boolean(isOn)}};
    if (!isOn) {
        discoverers_.clear();
        for (const auto& call : std::exchange(suspended_, {})) call.fail(Errors::kNotReady);
        stopInquiry();
        for (Device* device : all()) device->poweredOff();
        changed.emplace_back("Discovering", Value::boolean(false));
    }
    world_.objects.setAll(path_, kAdapter1, changed);
}

void Adapter::startDiscovery(const Call& call) {
    if (!isPowered()) return call.fail(Errors::kNotReady);
    if (discoverers_.count(call.sender())) return call.fail(Errors::kBusy);
    discoverers_.insert(call.sender());
    if (isSuspended()) return suspended_.push_back(call);
    call.reply();
    if (discoverers_.size() == 1) inquire();
}

bool Adapter::isSuspended() const {
    return std::any_of(devices_.begin(), devices_.end(), [](const auto& device) { return device.second->isPairing(); });
}

void Adapter::resumeDiscovery() {
    if (isSuspended()) return;
    const bool isFirst = suspended_.size() == discoverers_.size() && !suspended_.empty();
    for (const auto& call : std::exchange(suspended_, {})) call.reply();
    if (isFirst) inquire();
}

void Adapter::stopDiscovery(const Call& call) {
    if (!isPowered()) return call.fail(Errors::kNotReady);
    if (!discoverers_.count(call.sender())) return call.fail(Errors::kNoDiscovery);
    const auto isOfCaller = [&](const Call& pending) { return pending.sender() == call.sender(); };
    if (std::any_of(suspended_.begin(), suspended_.end(), isOfCaller)) return call.fail(Errors::kBusy);
    call.reply();
    endDiscoveryOf(call.sender());
}

void Adapter::endDiscoveryOf(const std::string& client) {
    std::erase_if(suspended_, [&](const Call& call) { return call.sender() == client; });
    if (!discoverers_.erase(client) || !discoverers_.empty()) return;
    stopInquiry();
    for (Device* device : all()) device->unseen();
    set("Discovering", Value::boolean(false));
}

void Adapter::clientGone(const std::string& client) {
    endDiscoveryOf(client);
    for (Device* device : all()) device->clientGone(client);
}

/// Filters are taken and make no difference: everything in range is found.
void Adapter::setDiscoveryFilter(const Call& call) {
    if (!isPowered()) return call.fail(Errors::kNotReady);
    call.reply();
}

void Adapter::getDiscoveryFilters(const Call& call) {
    call.reply(
        {Value::strings({"UUIDs", "RSSI", "Pathloss", "Transport", "DuplicateData", "Discoverable", "Pattern"})});
}

void Adapter::removeDevice(const Call& call) {
    const auto found = devices_.find(call.arguments()[0].text());
    if (found == devices_.end()) return call.fail(Errors::kDoesNotExist);
    if (!isPowered()) return call.fail(Errors::kNotReady);
    devices_.erase(found);
    resumeDiscovery();
    call.reply();
}

void Adapter::inquire() {
    set("Discovering", Value::boolean(true));
    for (auto& [address, inRange] : inRange_) {
        if (!devices_.count(pathOf(address))) findLater(inRange);
    }
    seeDevices();
}

void Adapter::findLater(InRange& inRange) {
    const auto delay = inRange.plan.foundAfter.value_or(milliseconds(0));
    inRange.found = world_.loop.after(delay, [this, &inRange] { appear(inRange.plan); });
}

void Adapter::stopInquiry() {
    seeing_.stop();
    for (auto& [address, inRange] : inRange_) inRange.found.stop();
}

void Adapter::seeDevices() {
    const auto interval = world_.tuning.seenEvery;
    if (interval == milliseconds(0)) return;
    seeing_ = world_.loop.after(interval, [this] {
        for (const auto& [address, inRange] : inRange_) {
            if (Device* present = device(pathOf(address))) {
                present->seen();
            } else if (!inRange.found.isRunning()) {
                appear(inRange.plan);  // it was removed in the meantime
            }
        }
        seeDevices();
    });
}

void Adapter::appear(const DevicePlan& plan) {
    const std::string path = pathOf(plan.address);
    const Model& model = *findModel(plan.model);
    devices_[path] = std::make_unique<Device>(
        world_, path_, plan, model,
        [this, path, address = plan.address](bool isOffTheAir) {
            devices_.erase(path);
            if (isOffTheAir) inRange_.erase(address);
            resumeDiscovery();
        },
        [this] { resumeDiscovery(); });
}

bool Adapter::put(const DevicePlan& plan) {
    if (!findModel(plan.model) || devices_.count(pathOf(plan.address)) || inRange_.count(plan.address)) return false;
    auto& inRange = inRange_[plan.address];
    inRange.plan = plan;
    if (!plan.foundAfter) {
        appear(plan);
    } else if (!discoverers_.empty()) {
        findLater(inRange);
    }
    return true;
}

bool Adapter::take(const std::string& path) {
    const bool wasInRange =
        std::erase_if(inRange_, [&](const auto& inRange) { return pathOf(inRange.first) == path; }) != 0;
    const bool wasThere = devices_.erase(path) != 0;
    resumeDiscovery();
    return wasInRange || wasThere;
}

Device* Adapter::device(const std::string& path) {
    const auto found = devices_.find(path);
    return found == devices_.end() ? nullptr : found->second.get();
}

/// A list of its own, since a device may leave when it is told something.
std::vector<Device*> Adapter::all() const {
    std::vector<Device*> all;
    for (const auto& [path, device] : devices_) all.push_back(device.get());
    return all;
}

std::vector<std::string> Adapter::devices() const {
    std::vector<std::string> paths;
    for (const auto& [path, device] : devices_) paths.push_back(path);
    return paths;
}

std::string Adapter::pathOf(const std::string& address) const {
    std::string name = address;
    std::replace(name.begin(), name.end(), ':', '_');
    return path_ + "/dev_" + name;
}

}  // namespace Simulator
