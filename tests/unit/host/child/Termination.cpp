#include <atomic>
#include <csignal>
#include <thread>

#include "platform/host/Interrupt.h"
#include "platform/host/Proc.h"
#include "platform/host/Sem.h"
#include "platform/host/Thd.h"
#include "tests/unit/host/child/Modes.h"

namespace {

using HostChild::say;

Sem wake(0);
std::atomic<bool> published{false};
std::atomic<std::uint64_t> deliveries{0};

void awaitPending() {
    while (!Proc::terminationPending()) std::this_thread::yield();
}

void sayState() {
    say("requested ", Proc::terminationRequested());
    say("pending ", Proc::terminationPending());
    say("interrupted ", Interrupt::raised(Interrupt::Level::End));
    say("deliveries ", deliveries);
}

}  // namespace

namespace HostChild {

std::int32_t blockedSignals() {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    say("terminate ", sigismember(&blocked, SIGTERM) == 1);
    say("interrupt ", sigismember(&blocked, SIGINT) == 1);
    say("hangup ", sigismember(&blocked, SIGHUP) == 1);
    return 0;
}

/// Nobody takes the request: the wait of the main thread, which would last for ever, ends.
std::int32_t interruptedWhileStarting() {
    say("ready");
    say("waited ", wake.wait());
    sayState();
    return 1;
}

/// Somebody takes the request; further signals change nothing.
std::int32_t delivered() {
    Proc::onTermination([] {
        ++deliveries;
        wake.post();
        return true;
    });
    say("ready");
    say("waited ", wake.wait());
    while (Proc::terminationPending()) std::this_thread::yield();  // the delivery has yet to return
    awaitGoOn();
    sayState();
    return 5;
}

/// The service is published only after the signal came.
std::int32_t deliveredLater() {
    Proc::onTermination([] {
        ++deliveries;
        if (!published) return false;
        wake.post();
        return true;
    });
    say("ready");
    say("slept ", Thd::sleep(60'000));
    sayState();
    published = true;
    Proc::deliverTermination();
    sayState();
    say("waited ", wake.wait());
    return 6;
}

/// Somebody who takes it registers only after the signal came; called on the host's thread.
std::int32_t registeredLater() {
    say("ready");
    awaitPending();
    static const std::thread::id mainThread = std::this_thread::get_id();
    Proc::onTermination([] {
        ++deliveries;
        say("on the main thread ", std::this_thread::get_id() == mainThread);
        wake.post();
        return true;
    });
    while (Proc::terminationPending()) std::this_thread::yield();
    say("waited ", wake.wait());
    return 7;
}

/// The main thread publishes and tries while the signal thread is in a delivery that is about to fail.
std::int32_t retriedByAnother() {
    Proc::onTermination([] {
        if (++deliveries > 1) return published.load();
        wake.post();
        while (!published) std::this_thread::yield();
        return false;
    });
    say("ready");
    wake.wait();
    Proc::deliverTermination();
    published = true;
    while (Proc::terminationPending()) std::this_thread::yield();
    sayState();
    return 8;
}

}  // namespace HostChild
