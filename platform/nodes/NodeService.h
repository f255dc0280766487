#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/nodes/Engine.h"
#include "platform/nodes/Service.h"
#include "platform/nodes/Tree.h"

namespace Services::Nodes {

class Node;

/// A running service: its part of the tree, its nodes, and the requests in progress on its server.
///
/// Running, then stopped, for good. The server is referred to from the start until it is stopped and no request is in
/// progress: until then service and server refer to each other. The engine is used until the end of the first wait()
/// after stop().
class NodeService final : public RefCount, public Libraries::Service::Base {
public:
    static Ref<NodeService> start(Ref<Interfaces::Service> service, Ref<ConMan> conMan, const Ref<String>& name);
    /// The running service with this handle, null when there is none.
    static Ref<NodeService> find(std::uint64_t handle);

    // Libraries::Service::Base
    std::uint64_t handle() const override { return handle_; }
    void stop() override;
    bool wait(std::uint32_t timeoutMs) override;

    const Ref<String>& name() const noexcept { return name_; }
    Engine& engine() noexcept { return *engine_; }
    Tree& tree() noexcept { return *tree_; }

    /// Publishes a node; null after a log record when it is left out.
    Ref<Node> publish(const Ref<String>& name, std::uint64_t id);
    /// Drops a node that is withdrawn and has no connections any more.
    void forget(Node& node);

    /// Uses the server for one request, from its begin until its answer is written. Not granted when the service has
    /// stopped: then the server must not be called.
    class Use {
    public:
        explicit Use(NodeService& service) noexcept : service_(service), granted_(service.beginUse()) {}
        ~Use() {
            if (granted_ && service_.endUse()) service_.afterLastUse();
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        bool granted() const noexcept { return granted_; }
        /// Ends the use before its destructor. True: afterLastUse() is to be called, by somebody who holds no lock.
        bool end() noexcept { return std::exchange(granted_, false) && service_.endUse(); }
        Interfaces::Generic& server() const noexcept { return service_.service_->generic(); }
        CallerID& caller() const noexcept { return service_.conMan_->caller(); }

    private:
        NodeService& service_;
        bool granted_;
    };
    /// Releases the server when the service has stopped, and wakes who waits for the last use. Takes no time but for
    /// the server's destructor.
    void afterLastUse();

private:
    NodeService(Ref<Interfaces::Service> service, Ref<ConMan> conMan, Ref<String> name, std::shared_ptr<Engine> engine,
                std::unique_ptr<Tree> tree);
    ~NodeService() override;

    Ref<Node> makeNode(const Ref<String>& name, std::uint64_t id, mode_t mode);
    bool beginUse() noexcept;
    bool endUse() noexcept;
    void releaseServer();
    void releaseEngine();

    const Ref<String> name_;
    std::uint64_t handle_ = 0;
    const std::unique_ptr<Tree> tree_;
    std::shared_ptr<Engine> engine_;
    std::atomic<bool> engineReleased_{false};

    // Set before the first node is published, released when stopped_ and uses_ is 0.
    Ref<Interfaces::Service> service_;
    Ref<ConMan> conMan_;
    std::atomic<unsigned> uses_{0};
    std::atomic<unsigned> waiters_{0};
    std::atomic<bool> stopped_{false};
    std::atomic<bool> serverReleased_{false};  // or about to be
    std::atomic<bool> serverGone_{false};

    Mutex lock_;
    std::condition_variable_any unused_;
    std::unordered_map<Node*, Ref<Node>> nodes_ GUARDED_BY(lock_);
};

}  // namespace Services::Nodes
