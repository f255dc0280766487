#include <fmt/format.h>

#include "simulator/Control.h"

// Control: adapters, devices, properties, scenarios.

namespace Simulator {

namespace {

std::string lastOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// A kernel name that can be an element of an object path.
bool isName(const std::string& name) {
    constexpr const char* kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    return !name.empty() && name.find_first_not_of(kAllowed) == std::string::npos;
}

/// A device address becomes an element of an object path, colons becoming underscores.
bool isAddress(std::string address) {
    for (char& letter : address) letter = letter == ':' ? '_' : letter;
    return isName(address);
}

Notify notify(const Value& value) {
    return value.isTrue() ? Notify::Yes : Notify::No;
}

}  // namespace

void Control::addAdapter(const Call& call) {
    const auto& arguments = call.arguments();
    AdapterPlan plan{arguments[0].text(), arguments[1].text(), arguments[0].text()};
    plan.properties = namedValues(arguments[2]);
    if (!isName(plan.name)) return refuse(call, fmt::format("'{}' is no name for an adapter, as hci2 is", plan.name));
    if (!simulation_.addAdapter(plan)) return refuse(call, fmt::format("there is an adapter {} already", plan.name));
    call.reply({Value::objectPath("/org/bluez/" + plan.name)});
}

void Control::removeAdapter(const Call& call) {
    const std::string& path = call.arguments()[0].text();
    if (!simulation_.removeAdapter(path)) return refuse(call, fmt::format("there is no adapter {}", path));
    call.reply();
}

void Control::setPowered(const Call& call) {
    const std::string& path = call.arguments()[0].text();
    Adapter* adapter = simulation_.adapter(path);
    if (!adapter) return refuse(call, fmt::format("there is no adapter {}", path));
    adapter->setPowered(call.arguments()[1].isTrue());
    call.reply();
}

void Control::addDevice(const Call& call) {
    const auto& arguments = call.arguments();
    put(call, {lastOf(arguments[0].text()), arguments[1].text(), arguments[2].text(), std::nullopt,
               namedValues(arguments[3])});
}

void Control::putInRange(const Call& call) {
    const auto& arguments = call.arguments();
    put(call, {lastOf(arguments[0].text()), arguments[1].text(), arguments[2].text(),
               milliseconds(arguments[3].number()), namedValues(arguments[4])});
}

void Control::put(const Call& call, const DevicePlan& plan) {
    const std::string& path = call.arguments()[0].text();
    Adapter* adapter = simulation_.adapter(path);
    if (!adapter) return refuse(call, fmt::format("there is no adapter {}", path));
    if (!findModel(plan.model)) return refuse(call, fmt::format("there is no model '{}'", plan.model));
    if (!isAddress(plan.address)) return refuse(call, fmt::format("'{}' is no address", plan.address));
    if (!adapter->put(plan)) return refuse(call, fmt::format("{} is in range of {} already", plan.address, path));
    call.reply({Value::objectPath(adapter->pathOf(plan.address))});
}

void Control::removeDevice(const Call& call) {
    const std::string& path = call.arguments()[0].text();
    Adapter* adapter = simulation_.adapterOf(path);
    if (!adapter || !adapter->take(path)) return refuse(call, fmt::format("there is no device {}", path));
    call.reply();
}

void Control::pinCode(const Call& call) {
    const std::string& path = call.arguments()[0].text();
    Device* device = simulation_.device(path);
    if (!device) return refuse(call, fmt::format("there is no device {}", path));
    call.reply({Value::string(device->pinCode())});
}

void Control::typePinCode(const Call& call) {
    const std::string& path = call.arguments()[0].text();
    Device* device = simulation_.device(path);
    if (!device) return refuse(call, fmt::format("there is no device {}", path));
    if (!device->type(call.arguments()[1].text())) return refuse(call, fmt::format("{} waits for no pincode", path));
    call.reply();
}

void Control::setProperty(const Call& call) {
    const auto& arguments = call.arguments();
    if (!world_.objects.set(arguments[0].text(), arguments[1].text(), arguments[2].text(), arguments[3].inner(),
                            notify(arguments[4]))) {
        return refuse(call, fmt::format("there is no interface {} at {}", arguments[1].text(), arguments[0].text()));
    }
    call.reply();
}

void Control::dropProperty(const Call& call) {
    const auto& arguments = call.arguments();
    if (!world_.objects.drop(arguments[0].text(), arguments[1].text(), {arguments[2].text()}, notify(arguments[3]))) {
        return refuse(call, fmt::format("there is no property {} of {} at {}", arguments[2].text(), arguments[1].text(),
                                        arguments[0].text()));
    }
    call.reply();
}

void Control::breakProperty(const Call& call) {
    const auto& arguments = call.arguments();
    const std::string& errorName = arguments[3].text();
    if (!errorName.empty() && sd_bus_interface_name_is_valid(errorName.c_str()) <= 0) {
        return refuse(call, fmt::format("'{}' is no name for an error", errorName));
    }
    if (!world_.objects.breakReading(arguments[0].text(), arguments[1].text(), arguments[2].text(), errorName)) {
        return refuse(call, fmt::format("there is no property {} of {} at {}", arguments[2].text(), arguments[1].text(),
                                        arguments[0].text()));
    }
    call.reply();
}

void Control::addObject(const Call& call) {
    const auto& arguments = call.arguments();
    const std::string& path = arguments[0].text();
    if (simulation_.adapter(path) || simulation_.device(path)) {
        return refuse(call, fmt::format("{} is an adapter or a device of the simulation", path));
    }
    std::vector<Interface> interfaces;
    for (const auto& member : arguments[1].elements()) {
        Interface interface {
            member.elements()[0].text(), {}
        };
        for (auto& [name, value] : namedValues(member.elements()[1])) interface.properties.push_back({name, value, {}});
        interfaces.push_back(std::move(interface));
    }
    world_.objects.addExactly(path, std::move(interfaces), notify(arguments[2]));
    call.reply();
}

void Control::removeObject(const Call& call) {
    const std::string& path = call.arguments()[0].text();
    if (simulation_.adapter(path) || simulation_.device(path) || !world_.objects.has(path)) {
        return refuse(call, fmt::format("{} is no object that was added", path));
    }
    world_.objects.remove(path, notify(call.arguments()[1]));
    call.reply();
}

void Control::loadScenario(const Call& call) {
    const std::string& name = call.arguments()[0].text();
    const NamedScenario* scenario = findScenario(name);
    if (!scenario) return refuse(call, fmt::format("there is no scenario '{}'", name));
    scenario_ = name;
    simulation_.load(scenario->make());
    call.reply();
}

void Control::reset(const Call& call) {
    simulation_.load(findScenario(scenario_)->make());
    call.reply();
}

void Control::listScenarios(const Call& call) {
    Value::List list;
    for (const auto& scenario : scenarios()) {
        list.push_back(Value::structure({Value::string(scenario.name), Value::string(scenario.summary)}));
    }
    call.reply({Value::array("(ss)", std::move(list))});
}

void Control::listModels(const Call& call) {
    Value::List list;
    for (const auto& model : models()) {
        list.push_back(Value::structure({Value::string(model.name), Value::string(model.summary)}));
    }
    call.reply({Value::array("(ss)", std::move(list))});
}

void Control::tune(const Call& call) {
    const std::string& what = call.arguments()[0].text();
    const milliseconds time(call.arguments()[1].number());
    Tuning& tuning = world_.tuning;
    const std::pair<const char*, milliseconds*> times[] = {
        {"forget-after", &tuning.forgetAfter},   {"type-after", &tuning.typeAfter},
        {"agent-timeout", &tuning.agentTimeout}, {"retry-after", &tuning.retryAfter},
        {"hasty-within", &tuning.hastyWithin},   {"seen-every", &tuning.seenEvery}};
    for (const auto& [name, place] : times) {
        if (what != name) continue;
        *place = time;
        return call.reply();
    }
    refuse(call, fmt::format("there is no time '{}'", what));
}

void Control::flood(const Call& call) {
    simulation_.flood().setRate(static_cast<std::uint32_t>(call.arguments()[0].number()));
    call.reply();
}

void Control::floodSent(const Call& call) {
    call.reply({Value::uint64(simulation_.flood().sent())});
}

}  // namespace Simulator
