#include <array>
#include <string>

#include "adapters/Adapter.h"
#include "adapters/Adapters.h"
#include "platform/host/SysLog.h"

// What clients can read from an adapter's node and have it do. An action that cannot be carried out says so in its own
// reply value; the other actions of the call are carried out all the same.

namespace Services::Bluetooth::Linux {

namespace {

constexpr std::string_view kAddress = "ADDRESS";
constexpr std::string_view kName = "NAME";
constexpr std::string_view kInquiryStart = "INQUIRY_START";
constexpr std::string_view kInquiryStop = "INQUIRY_STOP";
constexpr std::array kAttributes{kAddress, kName};
constexpr std::array kActions{kInquiryStart, kInquiryStop};

constexpr std::string_view kClassOption = "class";
constexpr std::uint64_t kSuccess = 0;
constexpr std::uint64_t kFailure = 0x8443;

/// A new string; null for an index out of range.
template <std::size_t count>
Ref<String> nameAt(const std::array<std::string_view, count>& names, std::uint64_t index) {
    return index < count ? String::create(names[index]) : nullptr;
}

NodeValue discoveryResult(const Ref<String>& action, bool succeeded) {
    return NodeValue::makeInteger(action, succeeded ? kSuccess : kFailure);
}

}  // namespace

std::uint64_t Adapters::attributeCount() {
    return kAttributes.size();
}

Ref<String> Adapters::attributeName(std::uint64_t index) {
    return nameAt(kAttributes, index);
}

TArray<NodeValue> Adapters::getAttribute(Ref<String> name) {
    const Ref<Adapter> adapter = findAdapter(callerId());
    if (!adapter || !name) return {};
    if (name->equals(kAddress)) return {NodeValue::makeString(name, adapter->address())};
    if (name->equals(kName)) return {NodeValue::makeString(name, adapter->name())};
    return {};
}

TArray<NodeValue> Adapters::setAttribute(TArray<NodeValue> values) {
    return refuseAttributes(std::move(values));
}

std::uint64_t Adapters::actionCount() {
    return kActions.size();
}

Ref<String> Adapters::actionName(std::uint64_t index) {
    return nameAt(kActions, index);
}

TArray<NodeValue> Adapters::execute(TArray<NodeValue> values) {
    const Ref<Adapter> adapter = findAdapter(callerId());
    if (!adapter) return {};
    TArray<NodeValue> results;
    results.reserve(values.size());
    for (const NodeValue& action : values) results.push_back(executeAction(*adapter, action));
    return results;
}

NodeValue Adapters::executeAction(Adapter& adapter, const NodeValue& action) {
    if (action.isNamed(kInquiryStart)) {
        if (const Ref<String> error = checkOptions(action)) return NodeValue::makeString(action.name, error);
        return discoveryResult(action.name, adapter.setDiscovering(true));
    }
    if (action.isNamed(kInquiryStop)) return discoveryResult(action.name, adapter.setDiscovering(false));
    return NodeValue::makeString(action.name, String::create("Invalid Action"));
}

Ref<String> Adapters::checkOptions(const NodeValue& action) {
    if (action.kind != NodeValue::kList) return nullptr;
    Ref<String> error;
    for (const NodeValue& option : action.children) {
        if (!option.isNamed(kClassOption)) {
            error = String::create("Invalid option " + std::string(viewOf(option.name)));
        } else if (option.kind != NodeValue::kString && option.kind != NodeValue::kList) {
            error = String::create("Invalid format for " + std::string(kClassOption));
        } else {
            LogRecord(3, logHandle_) << "Option BT class filter not yet implemented";
        }
    }
    return error;
}

}  // namespace Services::Bluetooth::Linux
