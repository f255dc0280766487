#include "platform/nodes/DeviceNode.h"

#include <utility>
#include <vector>

#include "platform/nodes/Log.h"
#include "platform/nodes/Node.h"

Ref<DeviceNode> DeviceNode::create() {
    return Ref<DeviceNode>(new DeviceNode);
}

Ref<DeviceNode> DeviceNode::create(std::uint64_t type, std::uint64_t service, std::uint64_t a, std::uint64_t b,
                                   std::uint64_t mode, std::uint64_t id) {
    Ref<DeviceNode> node = create();
    node->configure(type, service, a, b, mode, id);
    return node;
}

void DeviceNode::configure(std::uint64_t, std::uint64_t service, std::uint64_t, std::uint64_t, std::uint64_t,
                           std::uint64_t id) {
    service_ = service;
    id_ = id;
}

struct DeviceServer::State {
    Services::Nodes::Mutex lock;
    std::vector<Ref<Services::Nodes::Node>> nodes GUARDED_BY(lock);
};

Ref<DeviceServer> DeviceServer::create() {
    return Ref<DeviceServer>(new DeviceServer);
}

DeviceServer::DeviceServer() : state_(std::make_unique<State>()) {}

DeviceServer::~DeviceServer() {
    withdraw();
}

void DeviceServer::withdraw() {
    const Services::Nodes::Lock lock(state_->lock);
    for (const Ref<Services::Nodes::Node>& node : state_->nodes) node->withdraw(false);
    state_->nodes.clear();
}

void DeviceServer::enter(const Ref<String>& name, const Ref<DeviceNode>& node) {
    using namespace Services::Nodes;
    const Ref<NodeService> service = node ? NodeService::find(node->service()) : nullptr;
    if (!service) {
        LogRecord(kLogDegraded, logHandle()) << "Node left out: " << name << ": its service is not running";
        return;
    }
    Ref<Node> published = service->publish(name, node->id());
    if (!published) return;
    const Services::Nodes::Lock lock(state_->lock);
    state_->nodes.push_back(std::move(published));
}

void DeviceServer::changed(std::uint64_t argument) {
    const Services::Nodes::Lock lock(state_->lock);
    for (const Ref<Services::Nodes::Node>& node : state_->nodes) node->changed(argument);
}
