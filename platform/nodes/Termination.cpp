#include "platform/nodes/Termination.h"

#include <utility>

#include "platform/host/Proc.h"
#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/NodeService.h"

namespace Services::Nodes {

namespace {

/// Lives to the end of the process, since signals may come until then.
struct Target {
    Mutex lock;
    Ref<String> name GUARDED_BY(lock);
    Ref<String> action GUARDED_BY(lock);
    Ref<NodeService> service GUARDED_BY(lock);
    std::uint64_t id GUARDED_BY(lock) = 0;
    bool ended GUARDED_BY(lock) = false;  // it was there and is withdrawn: the service is ending anyway
};

Target& target() {
    static auto& only = *new Target;
    return only;
}

/// Executes the action as a client's call would. False when the node is not served so far.
bool deliver() {
    Target& shared = target();
    Ref<NodeService> service;
    std::uint64_t id = 0;
    Ref<String> action;
    {
        const Lock lock(shared.lock);
        if (!shared.service) return shared.ended;
        service = shared.service;
        id = shared.id;
        action = shared.action;
    }
    const NodeService::Use use(*service);
    if (!use.granted()) return true;
    use.caller().setCallerId(id);
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

void Termination::served(NodeService& service, std::uint64_t id) {
    Ref<NodeService> before;  // given back after the lock
    Target& shared = target();
    {
        const Lock lock(shared.lock);
        before.swap(shared.service);
        shared.service.reset(&service);
        shared.id = id;
        shared.ended = false;
    }
    Proc::deliverTermination();
}

void Termination::ended(const NodeService& service) {
    Ref<NodeService> gone;  // given back after the lock
    Target& shared = target();
    const Lock lock(shared.lock);
    if (shared.service != &service) return;
    gone.swap(shared.service);
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
