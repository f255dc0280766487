#include <array>

#include "devices/Device.h"
#include "devices/Devices.h"
#include "devices/Log.h"
#include "platform/host/Sem.h"
#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"

// What clients of "bluetooth/devices/ADDRESS/device" read and do. Every operation looks its device up first and works
// on it without the registry's monitor: a CONNECT that waits holds up nobody else. An outcome of -1 is carried as the
// 32 bits it has, so that a client reads 4294967295.

namespace Services::Bluetooth::Linux {

namespace {

constexpr std::array kAttributes{
    "ADDRESS",  "NAME",           "STATUS", "MAJOR_SERVICE_CLASSES", "MAJOR_DEVICE_CLASS", "MINOR_DEVICE_CLASS",
    "PROFILES", "ACTIVE_PROFILES"};
constexpr std::array kActions{"CONNECT", "WAIT_CONNECTED", "ACTIVATE_PROFILE", "DISCONNECT"};

constexpr std::uint32_t kRefused = 4294967295u;

template <class Names>
Ref<String> nameAt(const Names& names, std::uint64_t index) {
    return index < names.size() ? String::create(std::string_view(names[index])) : nullptr;
}

std::uint64_t statusOf(PairingState state) {
    switch (state) {
        case PairingState::Unpaired:
            return 1;
        case PairingState::Pairing:
            return 2;
        case PairingState::Paired:
            return 3;
        case PairingState::Pincode:
        case PairingState::Cancelling:
        case PairingState::Unpairing:
            break;
    }
    return 0;
}

NodeValue profilesOf(Device& device, const Ref<String>& name, bool onlyActive) {
    TArray<NodeValue> numbers;
    const std::size_t count = device.profileCount();
    for (std::size_t index = 0; index < count; ++index) {
        const Ref<Profile> profile = device.profileAt(index);
        if (!profile) break;  // the list was emptied meanwhile
        if (onlyActive && !profile->active()) continue;
        numbers.push_back(NodeValue::makeInteger(String::create("PROFILE"), profile->number()));
    }
    return NodeValue::makeList(name, std::move(numbers));
}

NodeValue resultOf(const Ref<String>& action, std::uint32_t result) {
    return NodeValue::makeList(action, {NodeValue::makeInteger(String::create("RESULT"), result)});
}

const TArray<NodeValue>& optionsOf(const NodeValue& action) {
    static const TArray<NodeValue> none;
    return action.kind == NodeValue::kList ? action.children : none;
}

/// The first option whatever its name, in milliseconds.
std::uint32_t timeoutOf(const NodeValue& action) {
    const TArray<NodeValue>& options = optionsOf(action);
    if (options.empty() || options.front().kind != NodeValue::kInteger) return Sem::kNoLimit;
    return static_cast<std::uint32_t>(options.front().integer);
}

NodeValue connect(Device& device, const NodeValue& action) {
    const auto [result, pincode] = device.pair(timeoutOf(action));
    NodeValue reply = resultOf(action.name, static_cast<std::uint32_t>(result));
    if (result == 1) reply.children.push_back(NodeValue::makeString(String::create("PINCODE"), pincode));
    return reply;
}

/// The number of the profile to activate; false when there is none, which was logged.
bool profileNumber(const NodeValue& action, unsigned int* number) {
    // The host's log puts what one statement leaves open and the next one on the same line.
    const auto refuse = [&action](std::string_view reason, const Ref<String>& text = nullptr) {
        LogRecord(4, Log::registry, false) << action.name;
        LogRecord(4, Log::registry) << reason << text;
        return false;
    };
    if (const TArray<NodeValue>& options = optionsOf(action); !options.empty()) {
        const NodeValue& option = options.front();
        if (!option.isNamed("PROFILE") || option.kind != NodeValue::kInteger) {
            return refuse(": profile UUID must be a number");
        }
        *number = static_cast<unsigned int>(option.integer);
        return true;
    }
    if (action.kind != NodeValue::kString) return refuse(": missing UUID parameter");
    if (!action.text || !StrConv::num(action.text, number)) return refuse(": cannot parse UUID ", action.text);
    return true;
}

NodeValue activateProfile(Device& device, const NodeValue& action) {
    unsigned int number = 0;
    if (!profileNumber(action, &number)) return resultOf(action.name, kRefused);
    return resultOf(action.name, static_cast<std::uint32_t>(device.activateProfile(number)));
}

NodeValue perform(Device& device, const NodeValue& action) {
    if (action.isNamed("CONNECT")) return connect(device, action);
    if (action.isNamed("WAIT_CONNECTED")) {
        return NodeValue::makeInteger(action.name, device.waitPaired(timeoutOf(action)));
    }
    if (action.isNamed("ACTIVATE_PROFILE")) return activateProfile(device, action);
    if (action.isNamed("DISCONNECT")) return NodeValue::makeInteger(action.name, device.unpair());
    return NodeValue::makeInteger(action.name, ResultCode::kUnknownAction);
}

}  // namespace

std::uint64_t Devices::attributeCount() {
    return kAttributes.size();
}

Ref<String> Devices::attributeName(std::uint64_t index) {
    return nameAt(kAttributes, index);
}

TArray<NodeValue> Devices::getAttribute(Ref<String> name) {
    const Ref<Device> device = findDevice(callerId());
    if (!device || !name) return {};
    const std::uint32_t classOfDevice = device->getClassOfDevice();
    if (name->equals("ADDRESS")) return {NodeValue::makeString(name, device->getAddress())};
    if (name->equals("NAME")) return {NodeValue::makeString(name, device->getName())};
    if (name->equals("STATUS")) return {NodeValue::makeInteger(name, statusOf(device->getPairingState()))};
    // Ten bits, though the field has eleven: bit 23 is not reported, as clients know it.
    if (name->equals("MAJOR_SERVICE_CLASSES")) return {NodeValue::makeInteger(name, (classOfDevice >> 13) & 0x3FFu)};
    if (name->equals("MAJOR_DEVICE_CLASS")) return {NodeValue::makeInteger(name, (classOfDevice >> 8) & 0x1Fu)};
    if (name->equals("MINOR_DEVICE_CLASS")) return {NodeValue::makeInteger(name, (classOfDevice >> 2) & 0x3Fu)};
    if (name->equals("PROFILES")) return {profilesOf(*device, name, false)};
    if (name->equals("ACTIVE_PROFILES")) return {profilesOf(*device, name, true)};
    return {};
}

TArray<NodeValue> Devices::setAttribute(TArray<NodeValue> values) {
    return refuseAttributes(std::move(values));
}

std::uint64_t Devices::actionCount() {
    return kActions.size();
}

Ref<String> Devices::actionName(std::uint64_t index) {
    return nameAt(kActions, index);
}

TArray<NodeValue> Devices::execute(TArray<NodeValue> values) {
    const Ref<Device> device = findDevice(callerId());
    if (!device) return {};
    TArray<NodeValue> replies;
    replies.reserve(values.size());
    for (const NodeValue& action : values) replies.push_back(perform(*device, action));
    return replies;
}

}  // namespace Services::Bluetooth::Linux
