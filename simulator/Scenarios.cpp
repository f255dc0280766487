#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "simulator/Scenario.h"

// The named scenarios.

namespace Simulator {

namespace {

using namespace std::chrono_literals;

const AdapterPlan kFirstAdapter{"hci0", "00:AA:01:00:00:00", "workbench"};
const AdapterPlan kSecondAdapter{"hci1", "00:AA:01:01:00:01", "travel dongle"};

constexpr auto kFromTheStart = std::nullopt;

/// Distinct addresses for any number of devices.
std::string address(std::size_t number) {
    return fmt::format("5C:F3:70:{:02X}:{:02X}:{:02X}", number >> 16 & 0xff, number >> 8 & 0xff, number & 0xff);
}

/// One adapter and one device of the model, known from the start.
Scenario only(const char* model) {
    return {{kFirstAdapter}, {{"hci0", address(1), model, kFromTheStart}}};
}

Scenario empty() {
    return {};
}

Scenario twoAdapters() {
    return {{kFirstAdapter, kSecondAdapter}, {}};
}

Scenario tour() {
    Scenario scenario;
    scenario.adapters = {kFirstAdapter, kSecondAdapter};
    scenario.devices = {
        {"hci0", "5C:F3:70:12:34:01", "keyboard", 800ms}, {"hci0", "5C:F3:70:12:34:02", "headset", 1500ms},
        {"hci0", "5C:F3:70:12:34:03", "phone", 2200ms},   {"hci0", "5C:F3:70:12:34:04", "twice", 2600ms},
        {"hci1", "5C:F3:70:12:34:05", "speaker", 1200ms},
    };
    scenario.tuning.typeAfter = 3s;
    scenario.tuning.forgetAfter = 5min;  // people take their time
    return scenario;
}

Scenario keyboard() {
    return only("keyboard");
}
Scenario headset() {
    return only("headset");
}

/// Every model, in the order of the table, with addresses that count up.
Scenario zoo() {
    Scenario scenario{{kFirstAdapter}, {}};
    for (const auto& model : models()) {
        scenario.devices.push_back({"hci0", address(scenario.devices.size() + 1), model.name, kFromTheStart});
    }
    return scenario;
}

/// The zoo, to be found by inquiries.
Scenario wildlife() {
    Scenario scenario = zoo();
    for (auto& device : scenario.devices) device.foundAfter = 200ms;
    return scenario;
}

Scenario malformed() {
    const Property address{"Address", Value::string("00:AA:01:00:00:77"), {}};
    const Property name{"Name", Value::string("Hybrid"), {}};
    const Property alias{"Alias", Value::string("Hybrid"), {}};
    const Property discovering{"Discovering", Value::boolean(false), {}};
    const Property paired{"Paired", Value::boolean(false), {}};
    const Property adapter{"Adapter", Value::objectPath("/org/bluez/hci0"), {}};
    const Interface asAdapter{kAdapter1, {address, name, discovering}};
    const Interface asDevice{kDevice1, {address, name, alias, paired, adapter}};
    const Interface properties{kProperties, {}};

    Scenario scenario{{kFirstAdapter}, {}};
    scenario.objects = {
        {"/org/bluez/hci2", {asAdapter, asDevice, properties}},
        {"/org/bluez/hci0/dev_AdapterLast", {asDevice, asAdapter, properties}},
        {"/org/bluez/hci3", {{kAdapter1, {}}, properties}},
        {"/org/bluez/hci4", {{kAdapter1, {{"Address", Value::uint32(5), {}}, discovering}}, properties}},
        {"/org/bluez/hci0/dev_NoAddress", {{kDevice1, {name, alias}}, properties}},
        {"/org/bluez/hci0/dev_NumberAddress", {{kDevice1, {{"Address", Value::uint64(1), {}}, alias}}, properties}},
        {"/org/bluez/hci0/dev_ListAddress",
         {{kDevice1, {{"Address", Value::strings({"00:AA:01:00:00:78"}), {}}}}, properties}},
        {"/org/bluez/hci0/dev_SecondAddress",
         {{kDevice1, {{"Address", Value::uint32(5), {}}, {"Address", Value::string("00:AA:01:00:00:79"), {}}, alias}},
          properties}},
        {"/org/bluez/hci0/dev_EmptyAddress", {{kDevice1, {{"Address", Value::string(""), {}}, alias}}, properties}},
        {"/org/bluez/hci0/dev_Twice",
         {{kDevice1, {name}}, {kDevice1, {{"Address", Value::string("00:AA:01:00:00:7A"), {}}, alias}}, properties}},
        {"/org/bluez/hci0/dev_Plain",
         {{kDevice1, {{"Address", Value::string("00:AA:01:00:00:7B"), {}}, alias, paired, adapter}}}},
        {"/org/bluez/hci0/dev_Unknown",
         {{"org.bluez.Battery1", {{"Percentage", Value("y", std::uint64_t{50}), {}}}}, properties}},
        {"/org/bluez/hci0/dev_Empty", {}},
        {"/org/bluez/hci0/dev_Late",
         {{"org.bluez.Battery1", {}},
          {"org.example.Unknown", {address}},
          {kDevice1, {name, {"Address", Value::string("00:AA:01:00:00:7C"), {}}, alias, paired, adapter}},
          properties}},
        {"/", {{kDevice1, {{"Address", Value::string("00:AA:01:00:00:7D"), {}}}}, properties}},
        {"/somewhere/else", {{kDevice1, {{"Address", Value::string("00:AA:01:00:00:7E"), {}}, alias}}, properties}},
        {"/elsewhere",
         {{kAdapter1, {{"Address", Value::string("00:AA:01:00:00:7F"), {}}, name, discovering}}, properties}},
    };
    return scenario;
}

Scenario crowd(std::size_t size) {
    Scenario scenario{{kFirstAdapter}, {}};
    for (std::size_t number = 1; number <= size; ++number) {
        const std::string alias = fmt::format("Headset {}", number);
        scenario.devices.push_back({"hci0",
                                    address(number),
                                    "headset",
                                    kFromTheStart,
                                    {{"Name", Value::string(alias)}, {"Alias", Value::string(alias)}}});
    }
    return scenario;
}

Scenario hundred() {
    return crowd(100);
}
Scenario thousand() {
    return crowd(1000);
}
Scenario tenThousand() {
    return crowd(10000);
}

Scenario flood() {
    Scenario scenario = crowd(50);
    scenario.flood = 2000;
    return scenario;
}

Scenario notReady() {
    Scenario scenario = twoAdapters();
    scenario.adapters[0].powered = false;
    scenario.adapters[0].poweredAfter = 4s;
    return scenario;
}

}  // namespace

const std::vector<NamedScenario>& scenarios() {
    static const std::vector<NamedScenario> kScenarios{
        {"empty", "no adapter, no device", empty},
        {"two-adapters", "two adapters and nothing in range", twoAdapters},
        {"tour",
         "two adapters; inquiries find a keyboard, a headset, a phone and others; pincodes type themselves after 3 s",
         tour},
        {"keyboard", "one adapter that knows a keyboard; its pincode has to be typed", keyboard},
        {"headset", "one adapter that knows a headset, which just pairs", headset},
        {"not-ready", "two adapters, the first without power for four seconds", notReady},
        {"zoo", "one adapter that knows a device of every model", zoo},
        {"wildlife", "the same devices, to be found by inquiries", wildlife},
        {"malformed", "objects with missing, odd and doubled interfaces and properties", malformed},
        {"hundred", "a hundred devices", hundred},
        {"thousand", "a thousand devices", thousand},
        {"ten-thousand", "ten thousand devices", tenThousand},
        {"flood", "fifty devices whose RSSI changes two thousand times a second", flood},
    };
    return kScenarios;
}

const NamedScenario* findScenario(const std::string& name) {
    const auto found = std::find_if(scenarios().begin(), scenarios().end(),
                                    [&](const NamedScenario& scenario) { return scenario.name == name; });
    return found == scenarios().end() ? nullptr : &*found;
}

}  // namespace Simulator
