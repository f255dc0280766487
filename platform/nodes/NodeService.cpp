#include "platform/nodes/NodeService.h"

#include <cerrno>
#include <system_error>

#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/Log.h"
#include "platform/nodes/Node.h"
#include "platform/nodes/Termination.h"

namespace Services::Nodes {

namespace {

/// The running services by handle. Lives to the end of the process: no order of destruction to get wrong.
struct Services {
    Mutex lock;
    std::uint64_t lastHandle GUARDED_BY(lock) = 0;
    std::unordered_map<std::uint64_t, Ref<NodeService>> running GUARDED_BY(lock);
};

Services& services() {
    static auto& only = *new Services;
    return only;
}

}  // namespace

Ref<NodeService> NodeService::start(Ref<Interfaces::Service> service, Ref<ConMan> conMan, const Ref<String>& name) {
    if (!isComponent(viewOf(name))) {
        LogRecord(kLogFailure, logHandle()) << "Not a name for a service: " << name;
        return nullptr;
    }
    std::unique_ptr<Tree> tree = Tree::open(name->view());
    if (!tree) return nullptr;
    std::string reason;
    std::shared_ptr<Engine> engine = Engine::acquire(reason);
    if (!engine) {
        LogRecord(kLogFailure, logHandle()) << "Could not start to serve " << name << ": " << reason;
        return nullptr;
    }
    Ref<NodeService> started(
        new NodeService(std::move(service), std::move(conMan), name, std::move(engine), std::move(tree)));
    Services& all = services();
    const Lock lock(all.lock);
    started->handle_ = ++all.lastHandle;
    all.running.emplace(started->handle_, started);
    return started;
}

Ref<NodeService> NodeService::find(std::uint64_t handle) {
    Services& all = services();
    const Lock lock(all.lock);
    const auto found = all.running.find(handle);
    return found == all.running.end() ? nullptr : found->second;
}

NodeService::NodeService(Ref<Interfaces::Service> service, Ref<ConMan> conMan, Ref<String> name,
                         std::shared_ptr<Engine> engine, std::unique_ptr<Tree> tree)
    : name_(std::move(name)),
      tree_(std::move(tree)),
      engine_(std::move(engine)),
      service_(std::move(service)),
      conMan_(std::move(conMan)) {}

NodeService::~NodeService() {
    releaseEngine();
}

Ref<Node> NodeService::publish(const Ref<String>& name, std::uint64_t id) {
    constexpr mode_t kMode = 0660;
    constexpr mode_t kOwnOnly = 0600;
    const bool urgent = Termination::isTarget(viewOf(name));
    Ref<Node> node = makeNode(name, id, urgent ? kOwnOnly : kMode);
    if (urgent) {
        Termination::served(*this, id);
        if (stopped_) Termination::ended(*this);  // stop() may have told it before
    }
    return node;
}

Ref<Node> NodeService::makeNode(const Ref<String>& name, std::uint64_t id, mode_t mode) {
    std::string reason;
    std::optional<Tree::Socket> socket = tree_->publish(viewOf(name), mode, reason);
    if (!socket) {
        LogRecord(kLogDegraded, logHandle()) << "Node left out: " << name << ": " << reason;
        return nullptr;
    }
    Ref<Node> node(new Node(this, name, id, std::move(*socket)));
    bool running = false;
    {
        const Lock lock(lock_);
        running = !stopped_;
        if (running) nodes_.emplace(node.get(), node);
    }
    const bool open = running && node->open();
    if (!open) {
        reason = running ? std::system_category().message(errno) : "the service has stopped";
        LogRecord(kLogDegraded, logHandle()) << "Node left out: " << name << ": " << reason;
        node->withdraw(true);
        return nullptr;
    }
    return node;
}

void NodeService::forget(Node& node) {
    Ref<Node> forgotten;  // given back after the lock
    const Lock lock(lock_);
    const auto found = nodes_.find(&node);
    if (found == nodes_.end()) return;
    forgotten.swap(found->second);
    nodes_.erase(found);
}

void NodeService::stop() {
    std::vector<Ref<Node>> nodes;
    {
        const Lock lock(lock_);
        if (stopped_.exchange(true)) return;
        for (const auto& [address, node] : nodes_) nodes.push_back(node);
    }
    for (const Ref<Node>& node : nodes) node->withdraw(true);
    Termination::ended(*this);  // also where its node was left out
    tree_->close();
    Ref<NodeService> self;  // the registry's reference, given back at the end
    {
        Services& all = services();
        const Lock lock(all.lock);
        const auto found = all.running.find(handle_);
        if (found != all.running.end()) {
            self.swap(found->second);
            all.running.erase(found);
        }
    }
    if (uses_ == 0) releaseServer();
}

bool NodeService::wait(std::uint32_t timeoutMs) {
    constexpr std::uint32_t kNoLimit = UINT32_MAX;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const auto await = [&](auto reached) {
        const Lock lock(lock_);
        for (bool timeLeft = true; !reached();) {
            if (!timeLeft) return false;
            if (timeoutMs == kNoLimit) {
                unused_.wait(lock_);
            } else {
                timeLeft = unused_.wait_until(lock_, end) != std::cv_status::timeout;
            }
        }
        return true;
    };
    waiters_.fetch_add(1);  // before uses_ is looked at, see endUse()
    const bool unused = await([this] { return uses_ == 0; });
    waiters_.fetch_sub(1);
    if (!unused || !stopped_) return unused;
    releaseServer();
    // Another thread may be at it, and not through with it.
    if (!await([this] { return serverGone_.load(); })) return false;
    releaseEngine();
    return true;
}

bool NodeService::beginUse() noexcept {
    // Counted first, looked at second: stop() does it the other way round, so one of the two sees the other.
    uses_.fetch_add(1);
    if (!stopped_) return true;
    if (endUse()) afterLastUse();
    return false;
}

bool NodeService::endUse() noexcept {
    return uses_.fetch_sub(1) == 1 && (stopped_ || waiters_ > 0);
}

void NodeService::afterLastUse() {
    if (stopped_) releaseServer();
    const Lock lock(lock_);
    unused_.notify_all();
}

void NodeService::releaseServer() {
    if (serverReleased_.exchange(true)) return;
    service_.reset();
    conMan_.reset();
    const Lock lock(lock_);
    serverGone_ = true;
    unused_.notify_all();
}

void NodeService::releaseEngine() {
    if (!engineReleased_.exchange(true)) engine_->release();
}

}  // namespace Services::Nodes
