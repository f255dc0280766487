#include "platform/dbus/DispatchQueue.h"

#include <algorithm>
#include <iterator>

#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"

namespace Libraries::Platform::Posix::DBus {

namespace {

/// Before a message is delivered again to a handler that was out of memory; long enough not to spin.
constexpr std::chrono::milliseconds kRedeliveryPause{50};

std::uint64_t logHandle() {
    static const std::uint64_t handle = SysLogFilter::reg(String::create("DBus"));
    return handle;
}

/// What a message counts against the limit on signals; 0 for anything but a signal.
std::size_t signalBytesOf(DBusMessage* message) {
    if (!message || ::dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL) return 0;
    // libdbus does not tell the size of a message otherwise.
    char* bytes = nullptr;
    int size = 0;
    if (!::dbus_message_marshal(message, &bytes, &size)) return DispatchQueue::kMaxSignalBytes + 1;  // out of memory
    ::dbus_free(bytes);
    return static_cast<std::size_t>(size) + DispatchQueue::kBytesAroundSignal;
}

}  // namespace

void DispatchQueue::push(std::vector<Item>& items) {
    for (Item& item : items) item.signalBytes = signalBytesOf(item.message.get());
    bool wake = false;
    bool floodBegins = false;
    {
        const MutexLock lock(mutex_);
        const bool flooded = flooded_;
        for (Item& item : items) {
            if (admit(item)) items_.push_back(std::move(item));
        }
        floodBegins = flooded_ && !flooded;
        wake = waiting_;
    }
    items.clear();
    if (wake) wake_.notify_one();
    if (floodBegins) {
        LogRecord(3, logHandle()) << "Signals are dropped: " << StrConv::str(kMaxSignalBytes >> 20)
                                  << " MiB of them wait to be handled";
    }
}

bool DispatchQueue::admit(const Item& item) {
    if (item.signalBytes == 0) return true;
    if (signalBytes_ == 0) flooded_ = false;
    if (signalBytes_ + item.signalBytes > kMaxSignalBytes) {
        flooded_ = true;
        return false;
    }
    signalBytes_ += item.signalBytes;
    return true;
}

void DispatchQueue::end(std::vector<Item> unanswered) {
    {
        const MutexLock lock(mutex_);
        unanswered_ = std::move(unanswered);
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
    signalBytes_ -= item.signalBytes;
    return true;
}

void DispatchQueue::putBack(Item item) {
    const MutexLock lock(mutex_);
    if (dropped_) return;
    signalBytes_ += item.signalBytes;  // past the limit, if need be: it was within it
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
    std::move(unanswered_.begin(), unanswered_.end(), std::back_inserter(items_));
    return std::move(items_);
}

}  // namespace Libraries::Platform::Posix::DBus
