#pragma once

#include <chrono>
#include <condition_variable>

#include "platform/dbus/DBus.h"
#include "platform/host/Interrupt.h"
#include "platform/host/Mutex.h"
#include "platform/host/Object.h"

namespace Libraries::Platform::Posix::DBus {

/// One method call that was sent, from then until its reply is used. Either a thread waits for it, or it is finished on
/// the dispatch thread: a completion function runs there, or the handler for the answer of a caller that left.
class DBusPendingCall final : public RefCount {
public:
    /// All deadlines are of the monotonic clock.
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::time_point kNoDeadline = Clock::time_point::max();

    /// A call for a thread to wait for.
    explicit DBusPendingCall(Clock::time_point deadline) noexcept : deadline_(deadline) {}
    /// A call whose completion runs on the dispatch thread.
    DBusPendingCall(Clock::time_point deadline, DBusPendingCallNotifyFunction completion, void* userData,
                    DBusFreeFunction freeUserData) noexcept
        : deadline_(deadline), completion_(completion), userData_(userData), freeUserData_(freeUserData) {}
    ~DBusPendingCall() override = default;

    Clock::time_point deadline() const noexcept { return deadline_; }

    /// What ended a wait: the call's completion, its deadline, an interrupt of the calling thread.
    enum class Ended { Completed, TimedOut, Interrupted };
    /// Waits for complete(). A completion that is there counts even when the thread is interrupted.
    Ended wait(Interrupt::Level endsAt);
    /// Waits for a complete() that is certain to come in a moment: deaf to interrupts.
    void waitForCertain();
    /// The call is over; null: without a reply. Wakes the waiting thread. Once; not on a call for the dispatch thread.
    void complete(MessagePtr reply);

    /// The reply, once; the caller owns it. Null when there is none.
    DBusMessage* stealReply() noexcept { return reply_.release(); }

    /// Turns a call that its waiting thread gives up into one for the dispatch thread.
    void answerLate(LateAnswer late) noexcept { late_ = std::move(late); }
    /// Hands over the reply of a call for the dispatch thread, before it is queued there.
    void setReply(MessagePtr reply) noexcept { reply_ = std::move(reply); }
    /// The connection is gone: finish() frees the user data only.
    void drop() noexcept { dropped_ = true; }
    /// Finishes a call for the dispatch thread there: runs its function and frees its user data. Once.
    void finish();

private:
    const Clock::time_point deadline_;

    Mutex mutex_;
    std::condition_variable wake_;
    bool completed_ GUARDED_BY(mutex_) = false;

    // Written before the call is handed on and read after: by complete() to the waiting thread, by the dispatch queue.
    MessagePtr reply_;
    DBusPendingCallNotifyFunction completion_ = nullptr;
    void* userData_ = nullptr;
    DBusFreeFunction freeUserData_ = nullptr;
    LateAnswer late_;
    bool dropped_ = false;
};

}  // namespace Libraries::Platform::Posix::DBus
