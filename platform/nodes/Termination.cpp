#include "platform/nodes/Termination.h"

#include <utility>

#include "platform/host/Proc.h"
#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/Node.h"

namespace Services::Nodes {

namespace {

/// Lives to the end of the process, since signals may come until then.
struct Target {
    Mutex lock;
    Ref<String> name GUARDED_BY(lock);
    Ref<String> action GUARDED_BY(lock);
    Ref<Node> node GUARDED_BY(lock);
    bool ended GUARDED_BY(lock) = false;  // it was there and is withdrawn: the service is ending anyway
};

Target& target() {
    static auto& only = *new Target;
    return only;
}

/// Executes the action as a client's call would. False when the node is not published so far.
bool deliver() {
    Target& shared = target();
    Ref<Node> node;
    Ref<String> action;
    {
        const Lock lock(shared.lock);
        if (!shared.node) return shared.ended;
        node = shared.node;
        action = shared.action;
    }
    const NodeService::Use use(node->service());
    if (!use.granted()) return true;
    use.caller().setCallerId(node->id());
    NodeValue request;
    request.name = action;
    use.server().execute({request});
    return true;
}

}  // namespace

bool Termination::isTarget(std::string_view name) {
    Target& shared = target();
    const Lock lock(shared.lock);
    return shared.name && shared.name->equals(name);
}

void Termination::published(Node& node) {
    Target& shared = target();
    {
        const Lock lock(shared.lock);
        shared.node = &node;
        shared.ended = false;
    }
    Proc::deliverTermination();
}

void Termination::withdrawn(Node& node) {
    Ref<Node> gone;  // given back after the lock
    Target& shared = target();
    const Lock lock(shared.lock);
    if (shared.node != &node) return;
    gone.swap(shared.node);
    shared.ended = true;
}

void requestOnTermination(const Ref<String>& name, const Ref<String>& action) {
    {
        Target& shared = target();
        const Lock lock(shared.lock);
        shared.name = name;
        shared.action = action;
    }
    Proc::onTermination(&deliver);
}

}  // namespace Services::Nodes
