#include "platform/host/Sem.h"

#include <chrono>

#include "platform/host/Interrupt.h"

// No wake-up is lost: whoever leaves wait() without a count has found none under the mutex after whatever ended its
// wait, so the notification of a post() either meets a thread that takes the count or is not needed by anybody.

void Sem::post() {
    // Notified under the mutex: the thread that takes the count may release the last reference to the semaphore.
    const MutexLock lock(mutex_);
    ++count_;
    wake_.notify_one();
}

bool Sem::take() {
    if (count_ == 0) return false;
    --count_;
    return true;
}

bool Sem::wait(std::uint32_t timeoutMs) {
    {
        const MutexLock lock(mutex_);
        if (take()) return true;
    }
    if (timeoutMs == 0) return false;

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    const Interrupt::Waiting waiting(mutex_.native(), wake_);
    MutexLock lock(mutex_);
    bool timedOut = false;
    while (!take()) {
        if (timedOut || Interrupt::raised(Interrupt::Level::Unheard)) return false;
        if (timeoutMs == kNoLimit) {
            wake_.wait(lock.native());
        } else {
            timedOut = wake_.wait_until(lock.native(), deadline) == std::cv_status::timeout;
        }
    }
    return true;
}
