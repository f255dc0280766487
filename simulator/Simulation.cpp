#include "simulator/Simulation.h"

#include <fmt/format.h>

#include "simulator/ValueText.h"

namespace Simulator {

namespace {

constexpr const char* kRoot = "/org/bluez";

}  // namespace

Simulation::Simulation(Loop& loop, Bus& bus, Narrator& narrator)
    : world_{loop, bus, narrator}, calls_(loop), interference_(loop), flood_(world_, [this] { return devices(); }) {
    world_.random.seed(std::random_device()());
    world_.objects.describe(kObjectManager, {{"GetManagedObjects", "", "a{oa{sa{sv}}}"}});
    world_.objects.describe(kIntrospectable, {{"Introspect", "", "s"}});
    world_.objects.describe(kProperties, {{"Get", "ss", "v"}, {"GetAll", "s", "a{sv}"}, {"Set", "ssv", ""}});
    world_.objects.describe(kAgentManager1, Agents::methods().infos());
    world_.objects.describe(kAdapter1, Adapter::methods().infos());
    world_.objects.describe(kDevice1, Device::methods().infos());
    world_.objects.addExactly(kRoot, {{kIntrospectable, {}},
                                      {kAgentManager1, {}},
                                      {"org.bluez.ProfileManager1", {}},
                                      {"org.bluez.HealthManager1", {}}});
}

Simulation::~Simulation() {
    clear();
}

void Simulation::load(const Scenario& scenario) {
    clear();
    world_.tuning = scenario.tuning;
    for (const auto& plan : scenario.adapters) addAdapter(plan);
    for (const auto& plan : scenario.devices) {
        if (Adapter* adapter = this->adapter(fmt::format("{}/{}", kRoot, plan.adapter))) adapter->put(plan);
    }
    for (const auto& object : scenario.objects) world_.objects.addExactly(object.path, object.interfaces);
    flood_.setRate(scenario.flood);
}

void Simulation::announce() const {
    for (const auto& [path, adapter] : adapters_) world_.objects.announce(path);
}

void Simulation::end() {
    for (const auto& [path, adapter] : adapters_) adapter->setPowered(false);
    world_.agents.release(world_.bus);
    clear();
    world_.bus.flush();
}

void Simulation::clear() {
    flood_.setRate(0);
    interference_.clear();
    calls_.clear();
    adapters_.clear();
    for (const auto& path : world_.objects.paths()) {
        if (path != kRoot) world_.objects.remove(path);
    }
}

void Simulation::handle(const Call& call) {
    calls_.add(call);
    narrate(call);
    if (!interference_.take(call, [this, call] { carryOut(call); })) carryOut(call);
}

void Simulation::carryOut(const Call& call) {
    const std::string path = call.path();
    if (world_.objects.handle(call)) return;
    if (call.is(kProperties, "Set", "ssv") && world_.objects.has(path, kProperties)) return setProperty(call);
    if (path == kRoot && Agents::methods().dispatch(world_.agents, call)) return;
    Adapter* ownAdapter = world_.objects.has(path, kAdapter1) ? adapter(path) : nullptr;
    if (ownAdapter && Adapter::methods().dispatch(*ownAdapter, call)) return;
    Device* ownDevice = world_.objects.has(path, kDevice1) ? device(path) : nullptr;
    if (ownDevice && Device::methods().dispatch(*ownDevice, call)) return;
    call.failUnknown(world_.objects.isPrefix(path));
}

void Simulation::setProperty(const Call& call) {
    const std::string& interface = call.arguments()[0].text();
    const std::string& property = call.arguments()[1].text();
    const Value& value = call.arguments()[2].inner();
    const std::string path = call.path();
    if (!world_.objects.has(path, interface)) {
        return call.fail("org.freedesktop.DBus.Error.InvalidArgs", fmt::format("No such interface '{}'", interface));
    }
    if (!world_.objects.get(path, interface, property)) {
        return call.fail("org.freedesktop.DBus.Error.UnknownProperty", fmt::format("No such property '{}'", property));
    }
    Adapter* ownAdapter = interface == kAdapter1 ? adapter(path) : nullptr;
    Device* ownDevice = interface == kDevice1 ? device(path) : nullptr;
    const char type = ownAdapter ? Adapter::writableType(property) : ownDevice ? Device::writableType(property) : '\0';
    if (!type) {
        return call.fail("org.freedesktop.DBus.Error.PropertyReadOnly",
                         fmt::format("Property '{}' is not writable", property));
    }
    if (value.signature() != std::string(1, type)) {
        return call.fail("org.freedesktop.DBus.Error.InvalidSignature",
                         fmt::format("Invalid signature for '{}'", property));
    }
    if (ownDevice) ownDevice->write(property, value);
    // bluetoothd answers before it tells that the power changed, and after it told any other change.
    const bool isPower = ownAdapter && property == "Powered";
    if (isPower) call.reply();
    if (ownAdapter) ownAdapter->write(property, value);
    if (!isPower) call.reply();
}

void Simulation::clientGone(const std::string& client) {
    world_.agents.clientGone(client);
    for (const auto& [path, adapter] : adapters_) adapter->clientGone(client);
}

Adapter* Simulation::adapter(const std::string& path) {
    const auto found = adapters_.find(path);
    return found == adapters_.end() ? nullptr : found->second.get();
}

Adapter* Simulation::adapterOf(const std::string& devicePath) {
    return adapter(devicePath.substr(0, devicePath.rfind('/')));
}

Device* Simulation::device(const std::string& path) {
    Adapter* owner = adapterOf(path);
    return owner ? owner->device(path) : nullptr;
}

bool Simulation::addAdapter(const AdapterPlan& plan) {
    const std::string path = fmt::format("{}/{}", kRoot, plan.name);
    if (world_.objects.has(path)) return false;
    adapters_[path] = std::make_unique<Adapter>(world_, plan);
    return true;
}

bool Simulation::removeAdapter(const std::string& path) {
    return adapters_.erase(path) != 0;
}

std::vector<std::string> Simulation::devices() const {
    std::vector<std::string> all;
    for (const auto& [path, adapter] : adapters_) {
        for (auto& device : adapter->devices()) all.push_back(std::move(device));
    }
    return all;
}

void Simulation::narrate(const Call& call) const {
    if (!world_.narrator.isListening()) return;
    const std::string interface = call.interface();
    const std::string text =
        fmt::format("<- {} {} {}({})", call.sender(), call.path(), call.member(), toText(call.arguments()));
    const bool isRead = interface.starts_with("org.freedesktop.DBus.") && call.member() != "Set";
    if (isRead) {
        world_.narrator.read(text);
    } else {
        world_.narrator.event(text);
    }
}

}  // namespace Simulator
