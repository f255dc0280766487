#include "platform/dbus/PendingCall.h"

namespace Libraries::Platform::Posix::DBus {

DBusPendingCall::Ended DBusPendingCall::wait(Interrupt::Level endsAt) {
    const Interrupt::Waiting waiting(mutex_.native(), wake_);
    MutexLock lock(mutex_);
    while (!completed_) {
        if (Interrupt::raised(endsAt)) return Ended::Interrupted;
        if (deadline_ == kNoDeadline) {
            wake_.wait(lock.native());
        } else if (Clock::now() >= deadline_) {
            return Ended::TimedOut;
        } else {
            wake_.wait_until(lock.native(), deadline_);
        }
    }
    return Ended::Completed;
}

void DBusPendingCall::waitForCertain() {
    MutexLock lock(mutex_);
    while (!completed_) wake_.wait(lock.native());
}

void DBusPendingCall::complete(MessagePtr reply) {
    {
        const MutexLock lock(mutex_);
        reply_ = std::move(reply);
        completed_ = true;
    }
    // Not under the mutex, or the woken thread would run into it; whoever completes holds a reference.
    wake_.notify_one();
}

void DBusPendingCall::finish() {
    if (!dropped_) {
        if (late_ && reply_) late_(reply_.get());
        if (completion_) completion_(this, userData_);
    }
    late_ = nullptr;
    reply_.reset();
    if (freeUserData_) freeUserData_(userData_);
}

}  // namespace Libraries::Platform::Posix::DBus
