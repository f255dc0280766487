#include "platform/host/Mon.h"

#include <cassert>

#include "platform/host/Interrupt.h"

// The analysis cannot see that `held_` is the capability, so what takes it and gives it back is left out of it.

bool Mon::take() {
    if (held_) return false;
    held_ = true;
    return true;
}

bool Mon::await(bool interruptible) {
    MutexLock lock(mutex_);
    ++waiting_;
    // The monitor is looked at before the interrupt: the one thread that leave() woke must not go away with the wake-up
    // while the monitor is free and others wait.
    bool inside = take();
    while (!inside && !(interruptible && Interrupt::raised(Interrupt::Level::HangUp))) {
        wake_.wait(lock.native());
        inside = take();
    }
    --waiting_;
    return inside;
}

bool Mon::enter() NO_THREAD_SAFETY_ANALYSIS {
    {
        const MutexLock lock(mutex_);
        if (take()) return true;
    }
    const Interrupt::Waiting waiting(mutex_.native(), wake_);
    return await(true);
}

void Mon::enterAlways() NO_THREAD_SAFETY_ANALYSIS {
    await(false);
}

void Mon::leave() NO_THREAD_SAFETY_ANALYSIS {
    // Notified under the mutex: the next to enter may release the last reference to the monitor.
    const MutexLock lock(mutex_);
    assert(held_ && "left without being entered");
    held_ = false;
    if (waiting_ > 0) wake_.notify_one();
}
