#include "platform/host/Mon.h"

#include <gtest/gtest.h>

#include <atomic>

#include "platform/host/Interrupt.h"
#include "tests/unit/host/Threads.h"

namespace {

TEST(Mon, LetsOneThreadInAtATime) {
    constexpr int kThreads = 4;
    constexpr int kEach = 3000;
    const Ref<Mon> mon = Mon::create();
    int count = 0;  // unprotected but for the monitor: thread sanitizer looks on
    HostTest::Threads threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.start([&] {
            for (int round = 0; round < kEach; ++round) {
                const MonGuard guard(mon);
                ++count;
            }
        });
    }
    threads.join();
    EXPECT_EQ(count, kThreads * kEach);
}

TEST(Mon, CanBeEnteredAgainAfterItWasLeft) {
    Mon mon;
    for (int round = 0; round < 3; ++round) {
        const bool entered = mon.enter();
        ASSERT_TRUE(entered);
        if (entered) mon.leave();
    }
}

TEST(Mon, ThreadsThatAreInterruptedLeaveItToTheOthers) {
    constexpr int kEach = 2000;
    Mon mon;
    Interrupt token;
    int inside = 0;
    std::atomic<int> refused = 0;
    std::atomic<bool> done = false;
    HostTest::Threads threads;
    threads.start([&] {
        const Interrupt::Bind bind(token);
        for (int round = 0; round < kEach; ++round) {
            const bool entered = mon.enter();
            if (entered) {
                ++inside;
                mon.leave();
            } else {
                ++refused;
                token.reset();
            }
        }
        done = true;
    });
    threads.start([&] {
        for (int round = 0; round < kEach; ++round) {
            const bool entered = mon.enter();  // nobody interrupts this thread
            if (entered) {
                ++inside;
                mon.leave();
            }
        }
    });
    while (!done) token.raise(Interrupt::Level::HangUp);
    threads.join();
    EXPECT_EQ(inside + refused, 2 * kEach);
}

}  // namespace
