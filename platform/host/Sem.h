#pragma once

#include <condition_variable>
#include <cstdint>

#include "platform/host/Mutex.h"
#include "platform/host/Object.h"

/// A counting semaphore whose waits can be interrupted (Interrupt::Level::Unheard and above).
class Sem final : public RefCount {
public:
    /// No time limit, as a time-out: all 32 bits set.
    static constexpr std::uint32_t kNoLimit = 0xFFFFFFFFu;

    static Ref<Sem> create(std::uint32_t count) { return Ref<Sem>(new Sem(count)); }
    explicit Sem(std::uint32_t count) : count_(count) {}
    ~Sem() override = default;

    /// Adds one and wakes one waiter. Any thread. The waiter may release the semaphore's last reference.
    void post();
    /// Takes one, waiting at most `timeoutMs` milliseconds of the monotonic clock (0: does not wait; kNoLimit: no
    /// limit). False when the time passed or the thread was interrupted; then nothing was taken. A count that is there
    /// is taken even when the thread is interrupted. Any thread.
    bool wait(std::uint32_t timeoutMs = kNoLimit);

private:
    bool take() REQUIRES(mutex_);

    Mutex mutex_;
    std::condition_variable wake_;
    std::uint32_t count_ GUARDED_BY(mutex_);
};
