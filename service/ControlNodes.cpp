#include "adapters/Adapters.h"
#include "service/Service.h"

// The service's own nodes: bluetooth/service, through which a client ends it, and bluetooth/master, which starts and
// stops discovery on all adapters. They have no attributes.

namespace Services::Bluetooth::Linux {

namespace {

constexpr std::string_view kStop = "STOP";
constexpr std::string_view kInquiryStart = "INQUIRY_START";
constexpr std::string_view kInquiryStop = "INQUIRY_STOP";
constexpr std::uint64_t kSuccess = 0;
constexpr std::uint64_t kFailure = 0x8443;
constexpr std::uint64_t kNodeType = 0x20000;
constexpr std::uint64_t kNodeMode = 2;

Ref<DeviceServer> publish(const char* name, const Libraries::Service::Base& nodeService, std::uint64_t id) {
    const Ref<DeviceNode> node = DeviceNode::create(kNodeType, nodeService.handle(), 0, 0, kNodeMode, id);
    Ref<DeviceServer> server = DeviceServer::create();
    server->enter(String::create(name), node);
    return server;
}

NodeValue invalidAction(const NodeValue& action) {
    return NodeValue::makeString(action.name, String::create("Invalid action"));
}

}  // namespace

bool Service::createNodes() {
    namespace Nodes = Services::Nodes;
    const Ref<Nodes::Resolvers::Generic> generic = Nodes::Resolvers::Generic::create(
        Ref<Interfaces::Generic>(this), Ref<CallerID>(this), Nodes::Resolver::create());
    nodeService_ = Libraries::Service::Single::create(generic, generic, String::create(kServerName));
    if (!nodeService_) return false;
    serviceServer_ = publish("bluetooth/service", *nodeService_, SERVICE_NODE);
    masterServer_ = publish("bluetooth/master", *nodeService_, MASTER_NODE);
    return true;
}

std::uint64_t Service::attributeCount() {
    return 0;
}

Ref<String> Service::attributeName(std::uint64_t) {
    return nullptr;
}

TArray<NodeValue> Service::getAttribute(Ref<String>) {
    return {};
}

TArray<NodeValue> Service::setAttribute(TArray<NodeValue> values) {
    return refuseAttributes(std::move(values));
}

std::uint64_t Service::actionCount() {
    switch (callerId()) {
        case SERVICE_NODE:
            return 1;
        case MASTER_NODE:
            return 2;
        default:
            return 0;
    }
}

Ref<String> Service::actionName(std::uint64_t index) {
    const std::uint64_t node = callerId();
    if (node == SERVICE_NODE && index == 0) return String::create(kStop);
    if (node == MASTER_NODE && index == 0) return String::create(kInquiryStart);
    if (node == MASTER_NODE && index == 1) return String::create(kInquiryStop);
    return nullptr;
}

TArray<NodeValue> Service::execute(TArray<NodeValue> values) {
    const std::uint64_t node = callerId();
    TArray<NodeValue> results;
    for (const NodeValue& action : values) {
        if (node == SERVICE_NODE) results.push_back(executeOnService(action));
        if (node == MASTER_NODE) results.push_back(executeOnMaster(action));
    }
    return results;
}

NodeValue Service::executeOnService(const NodeValue& action) {
    if (!action.isNamed(kStop)) return invalidAction(action);
    terminate();
    return NodeValue::makeInteger(action.name, kSuccess);
}

NodeValue Service::executeOnMaster(const NodeValue& action) {
    const bool start = action.isNamed(kInquiryStart);
    if (!start && !action.isNamed(kInquiryStop)) return invalidAction(action);
    return NodeValue::makeInteger(action.name, adapters_->setDiscoveringAll(start) ? kSuccess : kFailure);
}

}  // namespace Services::Bluetooth::Linux
