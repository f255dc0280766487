#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <optional>
#include <thread>

#include "platform/host/Interrupt.h"
#include "platform/host/Mutex.h"

/// The request to end the process, which SIGTERM, SIGINT and SIGHUP make. However many signals there are, it is one:
/// made by the first, pending until it is delivered; once delivered, later signals ask for nothing more. A delivery is
/// tried by one thread at a time, without a lock; who comes meanwhile has that thread try once more. A request that
/// cannot be delivered, because the process still starts, ends the main thread's waits after a short patience.
class Termination {
public:
    /// The one of the process, which lives to its end.
    static Termination& instance();

    /// Blocks the signals on the calling thread, and so on all that it starts, and has a thread take them.
    void takeSignals();
    /// Ends that thread and waits for it, unless it is in a delivery that takes longer than a moment.
    void leaveSignals();

    void setDeliver(std::function<bool()> deliver);
    void tryDeliver();
    bool requested() const noexcept { return requested_.load(); }
    bool pending();
    Interrupt& mainInterrupt() noexcept { return mainInterrupt_; }

private:
    using Clock = std::chrono::steady_clock;

    Termination() = default;
    void signalLoop();
    bool awaitSignal(siginfo_t& info);
    void request();
    void pokeSignalThread() REQUIRES(mutex_);

    std::atomic<bool> requested_{false};
    Interrupt mainInterrupt_;
    std::thread signalThread_;  // this and the set: touched by takeSignals and leaveSignals only
    sigset_t signals_{};

    Mutex mutex_;
    std::condition_variable loopEnded_;
    std::optional<pthread_t> signalLoop_ GUARDED_BY(mutex_);  // set while the thread is in signalLoop()
    std::function<bool()> deliver_ GUARDED_BY(mutex_);
    std::optional<Clock::time_point> patienceEnds_ GUARDED_BY(mutex_);  // set at a failed delivery until it is over
    bool leaving_ GUARDED_BY(mutex_) = false;
    bool pending_ GUARDED_BY(mutex_) = false;
    bool delivered_ GUARDED_BY(mutex_) = false;
    bool trying_ GUARDED_BY(mutex_) = false;
    bool again_ GUARDED_BY(mutex_) = false;
};
