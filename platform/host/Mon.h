#pragma once

#include <condition_variable>

#include "platform/host/Mutex.h"
#include "platform/host/Object.h"

/// A monitor: mutual exclusion, not recursive, no order among those who wait. Waiting for it can be interrupted
/// (Interrupt::Level::HangUp and above); an enter that need not wait always succeeds.
class CAPABILITY("monitor") Mon final : public RefCount {
public:
    static Ref<Mon> create() { return Ref<Mon>(new Mon); }
    Mon() = default;
    ~Mon() override = default;

    /// True: the caller is inside and must leave. False: the thread was interrupted while it waited.
    bool enter() TRY_ACQUIRE(true);
    /// As enter, but deaf to interrupts: for clean-up that must happen.
    void enterAlways() ACQUIRE();
    /// Only by the thread that is inside.
    void leave() RELEASE();

private:
    friend struct MonProbe;

    bool take() REQUIRES(mutex_);
    bool await(bool interruptible) EXCLUDES(mutex_);

    Mutex mutex_;
    std::condition_variable wake_;
    bool held_ GUARDED_BY(mutex_) = false;
    unsigned waiting_ GUARDED_BY(mutex_) = 0;
};

/// Enters a monitor, deaf to interrupts, and leaves it at the end of the scope. For short sections.
class SCOPED_CAPABILITY MonGuard {
public:
    explicit MonGuard(Mon& mon) ACQUIRE(mon) : mon_(mon) { mon_.enterAlways(); }
    explicit MonGuard(const Ref<Mon>& mon) ACQUIRE(*mon) : MonGuard(*mon) {}
    ~MonGuard() RELEASE() { mon_.leave(); }
    MonGuard(const MonGuard&) = delete;
    MonGuard& operator=(const MonGuard&) = delete;

private:
    Mon& mon_;
};
