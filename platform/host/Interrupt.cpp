#include "platform/host/Interrupt.h"

namespace {
thread_local Interrupt* boundToken = nullptr;
}

void Interrupt::raise(Level level) noexcept {
    const std::lock_guard<std::mutex> guard(lock_);
    if (level <= level_.load()) return;
    level_.store(level);
    if (!waitMutex_) return;
    // The waiter looks at the level under its mutex: passing through it here means that the waiter has either seen the
    // new level or is inside wait() and gets the notification.
    { const std::lock_guard<std::mutex> pass(*waitMutex_); }
    waitWake_->notify_all();  // others may wait on the same condition; notify_one could pick one of them
}

Interrupt* Interrupt::current() noexcept {
    return boundToken;
}

bool Interrupt::raised(Level level) noexcept {
    return boundToken && boundToken->level() >= level;
}

Interrupt::Bind::Bind(Interrupt& token) noexcept : previous_(boundToken) {
    boundToken = &token;
}

Interrupt::Bind::~Bind() {
    boundToken = previous_;
}

Interrupt::Waiting::Waiting(std::mutex& mutex, std::condition_variable& wake) noexcept : token_(boundToken) {
    if (!token_) return;
    const std::lock_guard<std::mutex> guard(token_->lock_);
    token_->waitMutex_ = &mutex;
    token_->waitWake_ = &wake;
}

Interrupt::Waiting::~Waiting() {
    if (!token_) return;
    const std::lock_guard<std::mutex> guard(token_->lock_);
    token_->waitMutex_ = nullptr;
    token_->waitWake_ = nullptr;
}
