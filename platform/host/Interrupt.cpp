#include "platform/host/Interrupt.h"

namespace {
thread_local Interrupt* boundToken = nullptr;
}

void Interrupt::raise(Level level) noexcept {
    // Held to the end: the waiter takes it once more before its mutex and its condition go.
    const MutexLock lock(lock_);
    if (level <= level_.load()) return;
    level_.store(level);
    if (!waitMutex_) return;
    // The waiter looks at the level under its mutex: passing through that here means that the waiter has either seen
    // the new level or is inside wait() and gets the notification.
    { const std::lock_guard<std::mutex> pass(*waitMutex_); }
    waitWake_->notify_all();  // others may wait on the same condition; notify_one could pick one of them
}

Interrupt* Interrupt::current() noexcept {
    return boundToken;
}

bool Interrupt::raised(Level level) noexcept {
    return boundToken && boundToken->level() >= level;
}

void Interrupt::setWaiter(std::mutex* mutex, std::condition_variable* wake) noexcept {
    const MutexLock lock(lock_);
    waitMutex_ = mutex;
    waitWake_ = wake;
}

Interrupt::Bind::Bind(Interrupt& token) noexcept : previous_(boundToken) {
    boundToken = &token;
}

Interrupt::Bind::~Bind() {
    boundToken = previous_;
}

Interrupt::Waiting::Waiting(std::mutex& mutex, std::condition_variable& wake) noexcept : token_(boundToken) {
    if (token_) token_->setWaiter(&mutex, &wake);
}

Interrupt::Waiting::~Waiting() {
    if (token_) token_->setWaiter(nullptr, nullptr);
}
