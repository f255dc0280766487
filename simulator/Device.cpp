#include "simulator/Device.h"

#include <fmt/format.h>

#include <algorithm>

namespace Simulator {

namespace {

std::string pathOf(const std::string& adapterPath, std::string address) {
    std::replace(address.begin(), address.end(), ':', '_');
    return adapterPath + "/dev_" + address;
}

/// What bluetoothd tells of a device, in its order.
std::vector<Property> describe(const std::string& adapterPath, const DevicePlan& plan, const Model& model) {
    NamedValues values{
        {"Address", Value::string(plan.address)},
        {"AddressType", Value::string("public")},
        {"Name", Value::string(model.alias)},
        {"Alias", Value::string(model.alias)},
        {"Class", Value::uint32(model.classOfDevice)},
        {"Icon", Value::string(model.icon)},
        {"Paired", Value::boolean(false)},
        {"Bonded", Value::boolean(false)},
        {"Trusted", Value::boolean(false)},
        {"Blocked", Value::boolean(false)},
        {"LegacyPairing", Value::boolean(model.icon == "input-keyboard")},
        {"Connected", Value::boolean(false)},
        {"UUIDs", Value::strings({})},
        {"Adapter", Value::objectPath(adapterPath)},
        {"ServicesResolved", Value::boolean(false)},
    };
    const auto put = [&values](const NamedValues& others) {
        for (const auto& [name, value] : others) {
            const auto same =
                std::find_if(values.begin(), values.end(), [&](const auto& v) { return v.first == name; });
            if (same == values.end()) {
                values.emplace_back(name, value);
            } else {
                same->second = value;
            }
        }
    };
    put(model.properties);
    put(plan.properties);
    std::vector<Property> properties;
    for (auto& [name, value] : values) {
        if (std::find(model.without.begin(), model.without.end(), name) != model.without.end()) continue;
        if (name == "Icon" && value.isText() && value.text().empty()) continue;
        const bool isUnreadable =
            std::find(model.unreadable.begin(), model.unreadable.end(), name) != model.unreadable.end();
        properties.push_back({name, std::move(value), isUnreadable ? "org.bluez.Error.Failed" : ""});
    }
    return properties;
}

}  // namespace

Device::Device(World& world, const std::string& adapterPath, const DevicePlan& plan, const Model& model, Leave leave)
    : world_(world),
      path_(pathOf(adapterPath, plan.address)),
      model_(model),
      isKnown_(!plan.foundAfter),
      leave_(std::move(leave)) {
    auto properties = describe(adapterPath, plan, model);
    if (!isKnown_) properties.push_back({"RSSI", Value::int16(world.newRssi()), {}});
    world_.objects.add(path_, {{kDevice1, std::move(properties)}});
    world_.narrator.event(fmt::format("{} appears: \"{:.60}\", which {}", path_, model.alias, model.summary));
}

Device::~Device() {
    if (pairing_) pairing_->answer(Errors::kAuthenticationCanceled);
    pairing_.reset();
    if (connectCall_) connectCall_->fail("org.bluez.Error.Failed", "Software caused connection abort");
    world_.narrator.event(fmt::format("{} goes away", path_));
    world_.objects.remove(path_);
}

const MethodTable<Device>& Device::methods() {
    static const MethodTable<Device> kMethods(kDevice1, {{{"Pair", "", ""}, &Device::pair},
                                                         {{"CancelPairing", "", ""}, &Device::cancelPairing},
                                                         {{"Connect", "", ""}, &Device::connect},
                                                         {{"Disconnect", "", ""}, &Device::disconnect},
                                                         {{"ConnectProfile", "s", ""}, &Device::connectProfile},
                                                         {{"DisconnectProfile", "s", ""}, &Device::disconnectProfile}});
    return kMethods;
}

bool Device::write(const std::string& property, const Value& value) {
    const bool isAlias = property == "Alias" && value.type() == 's';
    const bool isFlag = (property == "Trusted" || property == "Blocked") && value.type() == 'b';
    if (!isAlias && !isFlag) return false;
    // An empty alias brings the name back that the device gives itself.
    set(property.c_str(), isAlias && value.text().empty() ? Value::string(model_.alias) : value);
    return true;
}

bool Device::isTrue(const char* property) const {
    const Value* value = world_.objects.get(path_, kDevice1, property);
    return value && value->isTrue();
}

void Device::pair(const Call& call) {
    if (pairing_) return call.fail(Errors::kInProgress);
    if (isTrue("Bonded")) return call.fail(Errors::kAlreadyExists);
    forgetting_.stop();
    pairing_ = std::make_unique<Pairing>(world_, *this, call, model_.pairing);
    pairing_->go();
}

void Device::cancelPairing(const Call& call) {
    if (pairing_) {
        pairingEnded(Errors::kAuthenticationCanceled);
        return call.reply();
    }
    // bluetoothd removes the bond before it says that there was no pairing to cancel.
    showPaired(false);
    call.fail(Errors::kDoesNotExist);
}

void Device::pairingEnded(const std::optional<Error>& error) {
    const auto ended = std::move(pairing_);
    if (error) {
        showConnected(false);
    } else {
        showPaired(true);
    }
    ended->answer(error);
    forgetLater();
}

void Device::showPaired(bool isPaired) {
    NamedValues changed{{"Bonded", Value::boolean(isPaired)}};
    if (!model_.properties.empty() && isPaired) {
        // A device with a "Paired" of its own keeps it.
        const auto own = std::find_if(model_.properties.begin(), model_.properties.end(),
                                      [](const auto& property) { return property.first == "Paired"; });
        if (own == model_.properties.end()) changed.emplace_back("Paired", Value::boolean(true));
    } else {
        changed.emplace_back("Paired", Value::boolean(isPaired));
    }
    world_.objects.setAll(path_, kDevice1, changed);
    if (!isPaired) return forgetLater();
    world_.objects.setAll(path_, kDevice1, {{"UUIDs", model_.services}, {"ServicesResolved", Value::boolean(true)}});
}

void Device::showConnected(bool isConnected) {
    set("Connected", Value::boolean(isConnected));
    if (!isConnected) forgetLater();
}

bool Device::type(const std::string& pinCode) {
    return pairing_ && pairing_->type(pinCode);
}

void Device::vanish(bool isSilent) {
    if (isSilent) pairing_.reset();
    leave(true);
}

void Device::leave(bool isOffTheAir) {
    const auto leave = std::move(leave_);  // the device, and this member with it, is gone when it returns
    leave(isOffTheAir);
}

void Device::connect(const Call& call) {
    if (connectCall_) return call.fail(Errors::kBusy);
    if (isTrue("Connected")) return call.reply();
    connectCall_ = call;
    connecting_ = world_.loop.after(milliseconds(50), [this] {
        showConnected(true);
        connectCall_->reply();
        connectCall_.reset();
    });
}

void Device::disconnect(const Call& call) {
    if (!isTrue("Connected")) return call.fail(Errors::kNotConnected);
    if (pairing_) pairingEnded(Errors::kAuthenticationCanceled);
    showConnected(false);
    call.reply();
}

void Device::connectProfile(const Call& call) {
    if (connectCall_) return call.fail("org.bluez.Error.InProgress", "br-connection-busy");
    const std::string wanted = call.arguments()[0].text();
    const auto& services = model_.services.elements();
    const bool isOffered = std::any_of(services.begin(), services.end(), [&](const Value& service) {
        return service.isText() && service.text() == wanted;
    });
    if (model_.profileDelay < milliseconds(0)) {
        connectCall_ = call;
        return;
    }
    connectCall_ = call;
    connecting_ = world_.loop.after(model_.profileDelay, [this, isOffered] {
        const Call answered = *connectCall_;
        connectCall_.reset();
        if (model_.profileError) return answered.fail(*model_.profileError);
        if (!isOffered) {
            return answered.fail("org.bluez.Error.NotAvailable", "br-connection-profile-unavailable");
        }
        showConnected(true);
        answered.reply();
    });
}

void Device::disconnectProfile(const Call& call) {
    if (!isTrue("Connected")) return call.fail(Errors::kNotConnected);
    call.reply();
}

void Device::clientGone(const std::string& client) {
    if (pairing_ && pairing_->isOf(client)) pairingEnded(Errors::kAuthenticationCanceled);
}

void Device::seen() {
    set("RSSI", Value::int16(world_.newRssi()));
    if (forgetting_.isRunning()) forgetLater();
}

void Device::unseen() {
    world_.objects.drop(path_, kDevice1, "RSSI");
    forgetLater();
}

void Device::poweredOff() {
    if (pairing_) pairingEnded(Errors::kAuthenticationFailed);
    showConnected(false);
    unseen();
}

void Device::forgetLater() {
    forgetting_.stop();
    const auto patience = world_.tuning.forgetAfter;
    if (isKnown_ || pairing_ || patience == milliseconds(0) || isTrue("Bonded") || isTrue("Connected")) return;
    forgetting_ = world_.loop.after(patience, [this] { leave(false); });
}

}  // namespace Simulator
