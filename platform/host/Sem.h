#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "platform/host/Object.h"

/// A counting semaphore whose waits can be interrupted (Interrupt::Level::Unheard and above).
class Sem final : public RefCount {
public:
    /// No time limit, as a time-out: all 32 bits set.
    static constexpr std::uint32_t kNoLimit = 0xFFFFFFFFu;

    static Ref<Sem> create(std::uint32_t count) { return Ref<Sem>(new Sem(count)); }
    explicit Sem(std::uint32_t count) : count_(count) {}
    ~Sem() override = default;

    /// Adds one and wakes one waiter. Any thread.
    void post();
    /// Takes one, waiting at most `timeoutMs` milliseconds of the monotonic clock (0: does not wait; kNoLimit: no
    /// limit). False when the time passed or the thread was interrupted. A count that is there is taken even when
    /// the thread is interrupted.
    bool wait(std::uint32_t timeoutMs = kNoLimit);

private:
    bool take();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::uint32_t count_;
};
