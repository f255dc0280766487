#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/dbus/DispatchQueue.h"
#include "platform/dbus/Watches.h"
#include "platform/host/RequestContext.h"

namespace Libraries::Platform::Posix::DBus {

/// libdbus's connection, its lock and its I/O thread.
///
/// libdbus has one I/O path per connection, and whoever waits in it keeps everybody else out of it. So nobody waits in
/// libdbus: each call into it is made under lock_ and does not block, and the I/O thread waits in poll() instead,
/// without the lock. A message is written by the thread that sends it, as far as the socket takes it; the I/O thread
/// writes the rest, reads everything, completes calls and keeps the deadlines of those that no thread waits for. It
/// runs no code of the connection's users and takes no lock but this directory's own.
class BusIo : public std::enable_shared_from_this<BusIo> {
public:
    using Clock = DBusPendingCall::Clock;

    /// Starts the I/O thread, which connects and says Hello, and waits for that; the calling thread's interrupt (End)
    /// ends the wait, not the attempt: the thread finishes that by itself. Null with the error set on failure.
    static std::shared_ptr<BusIo> open(DBusBusType type, DBusError* error);
    ~BusIo();
    BusIo(const BusIo&) = delete;
    BusIo& operator=(const BusIo&) = delete;

    bool connected() const noexcept { return connected_.load(); }
    /// What was read and is to be dispatched.
    DispatchQueue& queue() noexcept { return queue_; }

    /// Sends a message. False when the connection is gone or memory is short.
    bool send(DBusMessage* message, dbus_uint32_t* serial);
    /// Who uses the reply to a call.
    enum class ReplyTo { WaitingThread, DispatchThread };
    /// Sends a call; its reply, or the loss of the connection, ends up in `call`. False as above.
    bool sendCall(DBusMessage* message, const Ref<DBusPendingCall>& call, ReplyTo replyTo, dbus_uint32_t* serial);
    /// A request's place among the calls; none for a call that needs none.
    using Slot = std::optional<RequestContext::BusCall>;
    /// The thread that waits for a call leaves. Its reply goes to `late` on the dispatch thread, if given, else
    /// nowhere; a call with `late` keeps the slot until it is answered or its time has passed, since the bus goes on
    /// counting it. False when the call is being completed this moment: then the thread has to wait for that.
    bool giveUp(dbus_uint32_t serial, LateAnswer late, Slot slot);

    /// Writes what is queued, for a short while at most, ends the I/O thread and answers everybody. Any thread, once.
    void close();

private:
    enum class State { Opening, Failed, Abandoned, Open, Closing, Ended };

    struct Outstanding {
        Ref<DBusPendingCall> call;
        ReplyTo replyTo;
        Slot slot;
    };

    /// What a turn of the loop hands out after it let go of the lock.
    struct Deliveries {
        std::vector<std::pair<Ref<DBusPendingCall>, MessagePtr>> completed;
        std::vector<DispatchQueue::Item> queued;
    };

    /// What the I/O thread is about to wait for.
    struct Poll {
        int fd;
        short events;
        int timeoutMs;
    };

    BusIo();

    bool start(DBusBusType type);
    void run(DBusBusType type);
    bool connect(DBusBusType type);
    State adopt(::DBusConnection* bus) REQUIRES(lock_);
    void serve();
    bool turn(short events, Poll& next);
    void sort(MessagePtr message) REQUIRES(lock_);
    /// Drops a message with descriptors, answering it when it is a call.
    void refuse(DBusMessage* message) REQUIRES(lock_);
    void expire() REQUIRES(lock_);
    void deliver();
    void finish();
    static void takeLeave(::DBusConnection* bus);
    void watchDeadline(const DBusPendingCall& call, dbus_uint32_t serial) REQUIRES(lock_);
    bool write(DBusMessage* message, dbus_uint32_t* serial) REQUIRES(lock_);
    void wake() REQUIRES(lock_);

    const int wakeFd_;
    std::thread thread_;
    DispatchQueue queue_;
    Deliveries deliveries_;  // the I/O thread's
    std::atomic<bool> connected_{false};

    Mutex lock_;
    std::condition_variable opened_;
    State state_ GUARDED_BY(lock_) = State::Opening;
    DBusError openError_ GUARDED_BY(lock_);
    ::DBusConnection* bus_ GUARDED_BY(lock_) = nullptr;  // null unless open or closing
    Watches watches_ GUARDED_BY(lock_);
    std::unordered_map<dbus_uint32_t, Outstanding> calls_ GUARDED_BY(lock_);             // by serial
    std::set<std::pair<Clock::time_point, dbus_uint32_t>> deadlines_ GUARDED_BY(lock_);  // ReplyTo::DispatchThread's
    bool polling_ GUARDED_BY(lock_) = false;  // the I/O thread is in poll(), or on its way, and must be woken
    Clock::time_point pollsUntil_ GUARDED_BY(lock_) = Clock::time_point::max();
};

}  // namespace Libraries::Platform::Posix::DBus
