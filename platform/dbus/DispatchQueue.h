#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <vector>

#include "platform/dbus/PendingCall.h"

namespace Libraries::Platform::Posix::DBus {

/// What the I/O thread hands to the dispatch thread, in the order in which it came in: messages, and calls to finish.
///
/// Whoever is on the bus may send signals, as many as he likes, so there is a limit on those that wait. Past it the
/// newest are dropped, with one line in the log until all that were waiting are taken. Calls have no limit: the bus's
/// policy says who may make them. Nor have replies: there is one for a call at most.
class DispatchQueue {
public:
    using Clock = DBusPendingCall::Clock;

    /// Bytes of signals that wait at the same time: each as it comes over the bus, and what libdbus needs around it.
    static constexpr std::size_t kMaxSignalBytes = 256 * 1024 * 1024;
    /// The latter; measured with libdbus 1.14: 250 bytes.
    static constexpr std::size_t kBytesAroundSignal = 512;

    /// One of the two.
    struct Item {
        MessagePtr message;
        Ref<DBusPendingCall> call;
        std::size_t signalBytes = 0;  ///< the queue's
    };

    /// Appends the items, but for signals past the limit, and empties the vector. Any thread.
    void push(std::vector<Item>& items);
    /// Nothing is appended any more: the connection is gone. Calls without a reply are kept for drop(). Any thread.
    void end(std::vector<Item> unanswered);
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
    /// Drops what is left and what is put back later, after end(); gives what was left and the unanswered calls. Any
    /// thread.
    std::deque<Item> drop();

private:
    bool ready() const REQUIRES(mutex_);
    bool admit(const Item& item) REQUIRES(mutex_);

    Mutex mutex_;
    std::condition_variable wake_;
    std::deque<Item> items_ GUARDED_BY(mutex_);
    std::vector<Item> unanswered_ GUARDED_BY(mutex_);
    std::size_t signalBytes_ GUARDED_BY(mutex_) = 0;  // of the signals in items_
    bool flooded_ GUARDED_BY(mutex_) = false;         // signals were dropped since there was none in items_
    Clock::time_point heldUntil_ GUARDED_BY(mutex_) = Clock::time_point::min();
    bool waiting_ GUARDED_BY(mutex_) = false;
    bool woken_ GUARDED_BY(mutex_) = false;
    bool ended_ GUARDED_BY(mutex_) = false;
    bool dropped_ GUARDED_BY(mutex_) = false;
};

}  // namespace Libraries::Platform::Posix::DBus
