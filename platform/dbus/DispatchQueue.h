#pragma once

#include <condition_variable>
#include <deque>
#include <vector>

#include "platform/dbus/PendingCall.h"

namespace Libraries::Platform::Posix::DBus {

/// What the I/O thread hands to the dispatch thread, in the order in which it came in: messages, and calls to finish.
class DispatchQueue {
public:
    using Clock = DBusPendingCall::Clock;

    /// One of the two.
    struct Item {
        MessagePtr message;
        Ref<DBusPendingCall> call;
    };

    /// Appends the items and empties the vector. Any thread.
    void push(std::vector<Item>& items);
    /// Nothing is appended any more: the connection is gone. Any thread.
    void end();
    /// Ends the current wait of take(), or the next one. Any thread.
    void wakeUp();

    /// Takes the first item, waiting at most `timeoutMs` (negative: no limit). False when there is none; then the time
    /// has passed, or wakeUp() or end() ended the wait. The dispatch thread.
    bool take(Item& item, int timeoutMs);
    /// Puts back the item that take() gave last; it and what follows it are held for a while, as whoever wants it again
    /// is short of memory.
    void putBack(Item item);
    /// Ended and empty. Any thread.
    bool finished();
    /// Drops what is left and what is put back later, after end(); gives what was left. Any thread.
    std::deque<Item> drop();

private:
    bool ready() const REQUIRES(mutex_);

    Mutex mutex_;
    std::condition_variable wake_;
    std::deque<Item> items_ GUARDED_BY(mutex_);
    Clock::time_point heldUntil_ GUARDED_BY(mutex_) = Clock::time_point::min();
    bool waiting_ GUARDED_BY(mutex_) = false;
    bool woken_ GUARDED_BY(mutex_) = false;
    bool ended_ GUARDED_BY(mutex_) = false;
    bool dropped_ GUARDED_BY(mutex_) = false;
};

}  // namespace Libraries::Platform::Posix::DBus
