#include "platform/host/Termination.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <system_error>
#include <utility>

#include "platform/host/SysLog.h"

namespace {

/// How long the end of the process waits for the signal thread.
constexpr auto kLeavePatience = std::chrono::milliseconds(200);
/// How long a request waits for a start that goes on, before the main thread's waits are ended: most starts are ready
/// by then and end the way a running process does.
constexpr auto kStartPatience = std::chrono::milliseconds(400);

/// Whether the parent wants the process to survive the end of its terminal.
bool hangupIsIgnored() noexcept {
    struct sigaction action {};
    return sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Termination& Termination::instance() {
    static auto& only = *new Termination;
    return only;
}

void Termination::takeSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    if (!hangupIsIgnored()) sigaddset(&signals_, SIGHUP);
    // Also what the parent ignores comes now, as SIGINT in what a shell without job control puts into the background:
    // Linux keeps a blocked signal whatever its disposition.
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    try {
        signalThread_ = std::thread(&Termination::signalLoop, this);
    } catch (const std::system_error&) {
        pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);  // no thread to be had: better killed than deaf
        return;
    }
    MutexLock lock(mutex_);
    signalLoop_ = signalThread_.native_handle();
}

void Termination::leaveSignals() {
    if (!signalThread_.joinable()) return;
    MutexLock lock(mutex_);
    leaving_ = true;
    pokeSignalThread();
    const auto deadline = std::chrono::steady_clock::now() + kLeavePatience;
    while (signalLoop_) {
        if (loopEnded_.wait_until(lock.native(), deadline) == std::cv_status::timeout) break;
    }
    const bool ended = !signalLoop_;
    lock.unlock();
    if (ended) {
        signalThread_.join();
    } else {
        signalThread_.detach();
    }
}

/// A signal from outside makes the request; the host's own, sent to this very thread, asks to try again or to end.
void Termination::signalLoop() {
    SysLog::thdName(String::create("Signals"));
    for (;;) {
        siginfo_t info{};
        if (awaitSignal(info)) {
            const bool own = info.si_code == SI_TKILL && info.si_pid == getpid();
            if (!own) request();
            tryDeliver();
        }
        const MutexLock lock(mutex_);
        if (pending_ && patienceEnds_ && *patienceEnds_ <= Clock::now()) {
            patienceEnds_.reset();
            mainInterrupt_.raise(Interrupt::Level::End);
        }
        if (!leaving_) continue;
        signalLoop_.reset();
        loopEnded_.notify_all();
        return;
    }
}

/// False when the patience with a start has ended first.
bool Termination::awaitSignal(siginfo_t& info) {
    std::optional<Clock::time_point> until;
    {
        const MutexLock lock(mutex_);
        if (pending_) until = patienceEnds_;
    }
    // Interrupted calls (EINTR: the process was stopped and went on) come back as a round without a signal.
    if (!until) return sigwaitinfo(&signals_, &info) > 0;
    const auto left = std::max(std::chrono::nanoseconds(0), std::chrono::nanoseconds(*until - Clock::now()));
    timespec patience{};
    patience.tv_nsec = static_cast<long>(left.count());  // less than a second, as kStartPatience is
    return sigtimedwait(&signals_, &info, &patience) > 0;
}

void Termination::request() {
    requested_.store(true);
    const MutexLock lock(mutex_);
    if (!delivered_) pending_ = true;
}

bool Termination::pending() {
    const MutexLock lock(mutex_);
    return pending_;
}

void Termination::pokeSignalThread() {
    // It kills no thread: the signal is blocked, and fetched by sigwaitinfo().
    if (signalLoop_) pthread_kill(*signalLoop_, SIGTERM);  // NOLINT(bugprone-bad-signal-to-kill-thread)
}

void Termination::setDeliver(std::function<bool()> deliver) {
    const MutexLock lock(mutex_);
    deliver_ = std::move(deliver);
    if (pending_) pokeSignalThread();
}

void Termination::tryDeliver() {
    MutexLock lock(mutex_);
    again_ = true;
    if (trying_) return;
    trying_ = true;
    while (pending_ && std::exchange(again_, false)) {
        const std::function<bool()> deliver = deliver_;
        lock.unlock();
        const bool done = deliver && deliver();
        lock.lock();
        if (done) {
            pending_ = false;
            delivered_ = true;
            mainInterrupt_.reset();
        } else if (!patienceEnds_) {
            patienceEnds_ = Clock::now() + kStartPatience;
            // It waits without a limit when another thread's attempt was under way while its own signal came.
            if (signalLoop_ && !pthread_equal(*signalLoop_, pthread_self())) pokeSignalThread();
        }
    }
    trying_ = false;
}
