#include "platform/host/Proc.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

// One request to end the process, however many signals there are: it is made by the first signal, pending until it is
// delivered, and once it was delivered further signals ask for nothing more. A delivery is tried by one thread at a
// time; who comes meanwhile has that thread try once more.

namespace {

std::atomic<std::int32_t> processExitCode{0};
std::atomic<bool> requested{false};

class Termination {
public:
    /// Lives to the end of the process, since the signal thread does.
    static Termination& instance() {
        static auto& only = *new Termination;
        return only;
    }

    void request() {
        requested.store(true);
        const std::lock_guard<std::mutex> guard(mutex_);
        if (!delivered_) pending_ = true;
    }

    bool pending() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return pending_;
    }

    void setDeliver(std::function<bool()> deliver) {
        const std::lock_guard<std::mutex> guard(mutex_);
        deliver_ = std::move(deliver);
        if (pending_ && signalThread_) pthread_kill(*signalThread_, SIGTERM);
    }

    void setSignalThread(pthread_t thread) {
        const std::lock_guard<std::mutex> guard(mutex_);
        signalThread_ = thread;
    }

    void tryDeliver() {
        std::unique_lock<std::mutex> lock(mutex_);
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
                Proc::mainInterrupt().reset();
            } else if (!again_) {
                Proc::mainInterrupt().raise(Interrupt::Level::End);
            }
        }
        trying_ = false;
    }

private:
    std::mutex mutex_;
    std::function<bool()> deliver_;
    std::optional<pthread_t> signalThread_;
    bool pending_ = false;
    bool delivered_ = false;
    bool trying_ = false;
    bool again_ = false;
};

sigset_t terminationSignals() noexcept {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

/// Signals from outside make a request; the host's own, sent to this very thread, only asks it to try again.
[[noreturn]] void takeSignalsForEver() {
    const sigset_t set = terminationSignals();
    Termination::instance().setSignalThread(pthread_self());
    for (;;) {
        siginfo_t info{};
        if (sigwaitinfo(&set, &info) < 0) continue;  // EINTR: a debugger, or the process was stopped and went on
        const bool own = info.si_code == SI_TKILL && info.si_pid == getpid();
        if (!own) Termination::instance().request();
        Termination::instance().tryDeliver();
    }
}

void openStandardDescriptors() noexcept {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF) continue;
        // The lowest free number is this one, since the ones below are open.
        [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
    }
}

}  // namespace

void Proc::exit(int code) noexcept {
    _exit(code);
}

void Proc::setExitCode(std::int32_t code) noexcept {
    processExitCode.store(code);
}

std::int32_t Proc::exitCode() noexcept {
    return processExitCode.load();
}

void Proc::takeSignals() {
    openStandardDescriptors();
    signal(SIGPIPE, SIG_IGN);
    // A shell without job control starts what it puts into the background with SIGINT ignored, and the kernel drops
    // ignored signals even where they are blocked.
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    const sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    try {
        std::thread(&takeSignalsForEver).detach();
    } catch (const std::system_error&) {
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // no thread to be had: better killed than deaf
    }
}

void Proc::onTermination(std::function<bool()> deliver) {
    Termination::instance().setDeliver(std::move(deliver));
}

void Proc::deliverTermination() {
    Termination::instance().tryDeliver();
}

bool Proc::terminationRequested() noexcept {
    return requested.load();
}

bool Proc::terminationPending() noexcept {
    return Termination::instance().pending();
}

Interrupt& Proc::mainInterrupt() noexcept {
    static auto& token = *new Interrupt;
    return token;
}
