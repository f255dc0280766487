#pragma once

#include <vector>

#include "platform/nodes/Engine.h"
#include "platform/nodes/NodeService.h"

namespace Services::Nodes {

class Connection;

/// A published node: its listening socket, its connections, and who watches it.
///
/// Lock order: the node's lock before a connection's. Nothing that belongs to a connection is called back into the node
/// while the connection's lock is held.
class Node final : public Pollable {
public:
    Node(Ref<NodeService> service, Ref<String> name, std::uint64_t id, Tree::Socket socket);

    /// Begins to accept. False, with errno, when the engine cannot watch the socket.
    bool open();

    const Ref<String>& name() const noexcept { return name_; }
    std::uint64_t id() const noexcept { return id_; }
    NodeService& service() const noexcept { return *service_; }
    /// The node through which the process is asked to end: its calls are served however many others are, and answered
    /// though the service is stopped.
    bool urgent() const noexcept { return urgent_; }

    /// Takes the node out of the tree, ends its watches, closes idle connections and has the others end with the
    /// request they serve; with `stopped`, those requests are interrupted and their connections closed unanswered.
    /// Never waits. Any thread, any number of times.
    void withdraw(bool stopped);
    /// Tells the watches of a change. Never waits. Any thread.
    void changed(std::uint64_t argument);

    /// The connection's client watches from now on, beginning with the reply `first`. False when the node is withdrawn.
    bool startWatch(Connection& connection, std::string_view first);
    void endWatch(Connection& connection);
    /// The connection is closed.
    void removeConnection(Connection& connection);

    // Pollable
    void onEvents(std::uint32_t events, Worker& worker) override;
    void onDeadline() override;
    bool finish(int& fd) override;
    void abandon() override;

private:
    ~Node() override;
    void acceptAll() REQUIRES(lock_);
    void admit(Fd socket) REQUIRES(lock_);
    void forgetIfGone();

    const Ref<NodeService> service_;
    const Ref<String> name_;
    const std::uint64_t id_;
    const bool urgent_;
    const ino_t inode_;
    std::atomic<bool> unlinked_{false};

    Mutex lock_;
    Fd listener_ GUARDED_BY(lock_);
    bool watched_ GUARDED_BY(lock_) = false;  // by the engine
    bool withdrawn_ GUARDED_BY(lock_) = false;
    std::vector<Ref<Connection>> connections_ GUARDED_BY(lock_);
    std::vector<Ref<Connection>> watches_ GUARDED_BY(lock_);
};

}  // namespace Services::Nodes
