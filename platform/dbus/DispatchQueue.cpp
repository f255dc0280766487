#include "platform/dbus/DispatchQueue.h"

#include <algorithm>

namespace Libraries::Platform::Posix::DBus {

namespace {

/// Before a message is delivered again to a handler that was out of memory; long enough not to spin.
constexpr std::chrono::milliseconds kRedeliveryPause{50};

}  // namespace

void DispatchQueue::push(std::vector<Item>& items) {
    bool wake = false;
    {
        const MutexLock lock(mutex_);
        for (Item& item : items) items_.push_back(std::move(item));
        wake = waiting_;
    }
    items.clear();
    if (wake) wake_.notify_one();
}

void DispatchQueue::end() {
    {
        const MutexLock lock(mutex_);
        ended_ = true;
    }
    wake_.notify_one();
}

void DispatchQueue::wakeUp() {
    {
        const MutexLock lock(mutex_);
        woken_ = true;
    }
    wake_.notify_one();
}

bool DispatchQueue::ready() const {
    return !items_.empty() && (heldUntil_ == Clock::time_point::min() || Clock::now() >= heldUntil_);
}

bool DispatchQueue::take(Item& item, int timeoutMs) {
    MutexLock lock(mutex_);
    auto until = Clock::time_point::max();
    if (!ready() && timeoutMs >= 0) until = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!ready()) {
        if (woken_ || (ended_ && items_.empty()) || (timeoutMs >= 0 && Clock::now() >= until)) {
            woken_ = false;
            return false;
        }
        waiting_ = true;
        const auto next = items_.empty() ? until : std::min(until, heldUntil_);
        if (next == Clock::time_point::max()) {
            wake_.wait(lock.native());
        } else {
            wake_.wait_until(lock.native(), next);
        }
        waiting_ = false;
    }
    woken_ = false;
    heldUntil_ = Clock::time_point::min();
    item = std::move(items_.front());
    items_.pop_front();
    return true;
}

void DispatchQueue::putBack(Item item) {
    const MutexLock lock(mutex_);
    if (dropped_) return;
    items_.push_front(std::move(item));
    heldUntil_ = Clock::now() + kRedeliveryPause;
}

bool DispatchQueue::finished() {
    const MutexLock lock(mutex_);
    return ended_ && items_.empty();
}

std::deque<DispatchQueue::Item> DispatchQueue::drop() {
    const MutexLock lock(mutex_);
    dropped_ = true;
    return std::move(items_);
}

}  // namespace Libraries::Platform::Posix::DBus
