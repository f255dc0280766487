#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/host/Object.h"
#include "platform/host/ThreadSafety.h"

/// A monitor: mutual exclusion, not recursive. Waiting for it can be interrupted (Interrupt::Level::HangUp and above);
/// an enter that need not wait always succeeds.
class CAPABILITY("monitor") Mon final : public RefCount {
public:
    static Ref<Mon> create() { return Ref<Mon>(new Mon); }
    Mon() = default;
    ~Mon() override = default;

    /// True: the caller is inside and must leave. False: the thread was interrupted while it waited.
    bool enter() TRY_ACQUIRE(true);
    /// As enter, but deaf to interrupts: for clean-up that must happen.
    void enterAlways() ACQUIRE();
    void leave() RELEASE();

private:
    bool take();
    bool await(bool interruptible);

    std::mutex mutex_;
    std::condition_variable wake_;
    bool held_ = false;
    unsigned waiting_ = 0;
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
