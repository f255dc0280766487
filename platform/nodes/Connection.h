#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/host/Interrupt.h"
#include "platform/nodes/Engine.h"

namespace Services::Nodes {

class Node;
enum class Outcome : std::uint8_t;

/// One client's connection to a node.
///
/// All its state is under one lock, which is held over system calls that do not block, and given up while a request is
/// served. Whoever holds it moves the connection on as far as it goes (pump): reads while there is something to read
/// and room for it, and serves while a call is waiting and none is being served. So a request that blocks keeps one
/// thread; what comes in meanwhile is read by others into the connection's queue, up to kPendingCalls, and waits its
/// turn.
///
/// The connection ends when there is nothing left to do (settle): its input has ended (Input below) or its node is
/// withdrawn, no call is waiting or being served, there is no watch, and every reply has been taken. A client that hung
/// up takes no replies and ends what is being served for it; of the calls that wait only the oneway ones are carried
/// out.
class Connection final : public Pollable {
public:
    Connection(Ref<Node> node, uid_t user, Fd socket);

    /// Begins to read. False, with errno, when the engine cannot watch the socket.
    bool open();
    uid_t user() const noexcept { return user_; }

    // For the node, under its lock or without: see Node for the order.
    /// Sends the first reply of a watch. False when the client is gone.
    bool beginWatch(std::string_view first);
    /// False when the connection is closed now: then the caller has the node remove it.
    bool sendChange(std::string_view reply);
    /// Ends the watch, drops the calls that wait, and ends the connection after the request being served; `stopped`:
    /// interrupts that request and closes at once, unless the node is urgent.
    void nodeWithdrawn(bool stopped);

    // Pollable
    void onEvents(std::uint32_t events, Worker& worker) override;
    void onDeadline() override;
    bool finish(int& fd) override;
    void abandon() override;

private:
    /// What comes from the client.
    enum class Input : std::uint8_t {
        Open,
        Ended,   ///< the client sends no more
        Broken,  ///< the client sent what no call can follow, or none can be served; nothing is read any more
    };
    /// The request being served.
    struct Serving {
        Interrupt token;
        bool oneway = false;  // guarded by lock_
    };
    /// Limits whose log record was written.
    enum Logged : unsigned { LoggedBusy = 1, LoggedDepth = 2, LoggedPending = 4 };

    ~Connection() override;

    // Connection.cpp
    void pump(Worker& worker) REQUIRES(lock_);
    void serve(std::string_view message, Worker& worker) REQUIRES(lock_);
    bool begin(Serving& serving, bool oneway) EXCLUDES(lock_);
    bool settle() REQUIRES(lock_);
    void close() REQUIRES(lock_);
    void hangUp() REQUIRES(lock_);
    void dropWaiting() REQUIRES(lock_);
    void logLimits(Outcome outcome) REQUIRES(lock_);
    void logOnce(Logged limit, std::string_view what) REQUIRES(lock_);
    void logLimit(std::string_view what) const;

    bool isOpen() const REQUIRES(lock_) { return static_cast<bool>(socket_); }
    unsigned pendingCalls() const REQUIRES(lock_) { return calls_ + (serving_ || watching_ ? 1u : 0u); }
    bool maySend() const REQUIRES(lock_) { return isOpen() && !hungUp_; }
    bool mayServe() const REQUIRES(lock_);
    bool wantsInput() const REQUIRES(lock_);

    // ConnectionInput.cpp
    std::optional<std::string_view> receive(Worker& worker) REQUIRES(lock_);
    std::size_t peek(Worker& worker) REQUIRES(lock_);
    bool isUnread() const REQUIRES(lock_);
    void enqueue(std::string_view bytes) REQUIRES(lock_);
    void dequeue(std::string& message) REQUIRES(lock_);
    void breakInput(std::string_view limit) REQUIRES(lock_);
    std::size_t queuedBytes() const REQUIRES(lock_) { return queue_.size() - queueHead_; }

    // ConnectionOutput.cpp
    void send(std::string_view reply) REQUIRES(lock_);
    std::size_t write(std::string_view bytes) REQUIRES(lock_);
    void flush() REQUIRES(lock_);
    void watchOutput(bool on) REQUIRES(lock_);
    std::size_t backlogBytes() const REQUIRES(lock_) { return backlog_.size() - backlogHead_; }

    const Ref<Node> node_;
    const uid_t user_;

    Mutex lock_;
    Fd socket_ GUARDED_BY(lock_);  // none: closed

    Input input_ GUARDED_BY(lock_) = Input::Open;
    bool readable_ GUARDED_BY(lock_) = false;   // there may be something to read
    bool readToEnd_ GUARDED_BY(lock_) = false;  // the client sends no more: a short read is not the last one
    bool hungUp_ GUARDED_BY(lock_) = false;
    bool withdrawn_ GUARDED_BY(lock_) = false;
    bool stopped_ GUARDED_BY(lock_) = false;
    bool watching_ GUARDED_BY(lock_) = false;
    bool watchEnded_ GUARDED_BY(lock_) = false;    // the node is still to be told
    bool lastUseEnded_ GUARDED_BY(lock_) = false;  // the service is still to be told
    bool outputWatched_ GUARDED_BY(lock_) = false;
    unsigned logged_ GUARDED_BY(lock_) = 0;
    Serving* serving_ GUARDED_BY(lock_) = nullptr;

    std::string queue_ GUARDED_BY(lock_);  // calls that wait, each with its NUL, then the begin of one more
    std::size_t queueHead_ GUARDED_BY(lock_) = 0;
    std::size_t partial_ GUARDED_BY(lock_) = 0;  // bytes of that begin
    unsigned calls_ GUARDED_BY(lock_) = 0;
    std::optional<Clock::time_point> messageDue_ GUARDED_BY(lock_);

    std::string backlog_ GUARDED_BY(lock_);  // replies the kernel did not take so far
    std::size_t backlogHead_ GUARDED_BY(lock_) = 0;
    std::optional<Clock::time_point> backlogDue_ GUARDED_BY(lock_);
};

}  // namespace Services::Nodes
