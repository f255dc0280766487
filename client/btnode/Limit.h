#pragma once

#include <chrono>
#include <initializer_list>
#include <memory>

namespace btnode {

/// A switch that ends waits of this library; once raised it stays raised.
class Cancellation {
public:
    /// Null when the process has no descriptor left.
    static std::unique_ptr<Cancellation> create();
    ~Cancellation();
    Cancellation(const Cancellation&) = delete;
    Cancellation& operator=(const Cancellation&) = delete;

    /// From any thread, and from a signal handler.
    void raise() const;
    bool raised() const;
    /// Readable once raised; the object keeps it.
    int fd() const { return fd_; }

private:
    explicit Cancellation(int fd) : fd_(fd) {}
    const int fd_;
};

/// How long a call may take: until a moment of the monotonic clock, or until a cancellation is raised.
struct Limit {
    using Clock = std::chrono::steady_clock;

    Clock::time_point until = Clock::time_point::max();
    /// May be null; otherwise outlives the call.
    const Cancellation* cancellation = nullptr;

    static Limit in(std::chrono::milliseconds span, const Cancellation* cancellation = nullptr);
    /// What is left, as poll takes it: -1 without end, 0 when it passed, never less than 1 ms before that.
    int pollTime() const;
    bool passed() const { return Clock::now() >= until; }
    /// The cancellation's descriptor, -1 without one.
    int cancelFd() const { return cancellation == nullptr ? -1 : cancellation->fd(); }
};

/// How a wait on a descriptor ended.
enum class Ready { Yes, TimedOut, Interrupted };

/// Waits until the descriptor has one of the poll events, hangs up or fails, or the limit ends it; -1 waits for the
/// limit only.
Ready waitFor(int fd, short events, const Limit& limit);

/// The same for several descriptors.
Ready waitForAny(std::initializer_list<int> fds, short events, const Limit& limit);

}  // namespace btnode
