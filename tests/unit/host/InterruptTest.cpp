#include "platform/host/Interrupt.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/host/Mon.h"
#include "platform/host/Sem.h"
#include "platform/host/Thd.h"
#include "tests/unit/host/Threads.h"

namespace {

using Level = Interrupt::Level;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kLongMs = 60'000;

/// Runs the wait on a thread bound to a token, raises that once the thread has begun (or, in later rounds of a test's
/// own loop, while it begins), and says what the wait answered.
bool answerOfInterrupted(Level level, const std::function<bool()>& wait) {
    Interrupt token;
    std::atomic<bool> bound = false;
    bool answer = true;
    std::thread waiter([&] {
        const Interrupt::Bind bind(token);
        bound = true;
        bound.notify_one();
        answer = wait();
    });
    bound.wait(false);
    token.raise(level);
    waiter.join();
    return answer;
}

TEST(Interrupt, IsUnboundByDefault) {
    EXPECT_EQ(Interrupt::current(), nullptr);
    EXPECT_FALSE(Interrupt::raised(Level::Unheard));
}

TEST(Interrupt, BindingsNest) {
    Interrupt outer;
    Interrupt inner;
    const Interrupt::Bind bindOuter(outer);
    {
        const Interrupt::Bind bindInner(inner);
        EXPECT_EQ(Interrupt::current(), &inner);
    }
    EXPECT_EQ(Interrupt::current(), &outer);
}

TEST(Interrupt, LevelsOnlyRiseUntilReset) {
    Interrupt token;
    const Interrupt::Bind bind(token);
    token.raise(Level::HangUp);
    token.raise(Level::Unheard);
    EXPECT_EQ(token.level(), Level::HangUp);
    EXPECT_TRUE(Interrupt::raised(Level::Unheard));
    EXPECT_TRUE(Interrupt::raised(Level::HangUp));
    EXPECT_FALSE(Interrupt::raised(Level::End));
    token.reset();
    EXPECT_FALSE(Interrupt::raised(Level::Unheard));
}

TEST(Interrupt, EachLevelEndsAWaitForASemaphore) {
    for (const Level level : {Level::Unheard, Level::HangUp, Level::End}) {
        const Ref<Sem> sem = Sem::create(0);
        EXPECT_FALSE(answerOfInterrupted(level, [&] { return sem->wait(); }));
        EXPECT_FALSE(answerOfInterrupted(level, [&] { return sem->wait(kLongMs); }));
    }
}

TEST(Interrupt, HangUpAndEndEndASleep) {
    for (const Level level : {Level::HangUp, Level::End}) {
        EXPECT_FALSE(answerOfInterrupted(level, [] { return Thd::sleep(kLongMs); }));
    }
}

TEST(Interrupt, HangUpAndEndEndAWaitForAMonitor) {
    for (const Level level : {Level::HangUp, Level::End}) {
        const Ref<Mon> mon = Mon::create();
        const MonGuard guard(mon);
        EXPECT_FALSE(answerOfInterrupted(level, [&]() NO_THREAD_SAFETY_ANALYSIS { return mon->enter(); }));
    }
}

TEST(Interrupt, UnheardLetsSleepsAndMonitorsBe) {
    EXPECT_TRUE(answerOfInterrupted(Level::Unheard, [] { return Thd::sleep(20); }));

    Interrupt token;
    token.raise(Level::Unheard);
    const Interrupt::Bind bind(token);
    EXPECT_TRUE(Thd::sleep(1));

    const Ref<Mon> mon = Mon::create();
    std::thread holder;
    {
        std::atomic<bool> held = false;
        holder = std::thread([&] {
            const MonGuard guard(mon);
            held = true;
            held.notify_one();
            Thd::sleep(20);
        });
        held.wait(false);
    }
    const bool entered = mon->enter();
    EXPECT_TRUE(entered);
    if (entered) mon->leave();
    holder.join();
}

TEST(Interrupt, OfTheLastLevelLetsNoGuardedSectionBe) {
    Interrupt token;
    token.raise(Level::End);
    const Interrupt::Bind bind(token);
    const Ref<Mon> mon = Mon::create();
    std::atomic<bool> held = false;
    std::atomic<bool> left = false;
    std::thread holder([&] {
        const MonGuard guard(mon);
        held = true;
        held.notify_one();
        Thd::sleep(20);
        left = true;
    });
    held.wait(false);
    {
        const MonGuard guard(mon);
        EXPECT_TRUE(left);
    }
    holder.join();
}

TEST(Interrupt, IsSticky) {
    Interrupt token;
    token.raise(Level::End);
    const Interrupt::Bind bind(token);
    const Clock::time_point begin = Clock::now();
    EXPECT_FALSE(Sem::create(0)->wait());
    EXPECT_FALSE(Thd::sleep(kLongMs));
    EXPECT_FALSE(Thd::sleep(kLongMs));
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(kLongMs / 2));
    token.reset();
    EXPECT_TRUE(Thd::sleep(1));
}

TEST(Interrupt, TakesNothingThatIsThereAtOnce) {
    Interrupt token;
    token.raise(Level::End);
    const Interrupt::Bind bind(token);
    EXPECT_TRUE(Sem::create(1)->wait());
    const Ref<Mon> mon = Mon::create();
    const bool entered = mon->enter();
    EXPECT_TRUE(entered);
    if (entered) mon->leave();
}

TEST(Interrupt, LeavesOtherThreadsThatWaitForTheSameAlone) {
    const Ref<Sem> sem = Sem::create(0);
    std::atomic<bool> otherDone = false;
    bool otherAnswer = false;
    std::thread other([&] {
        otherAnswer = sem->wait(kLongMs);
        otherDone = true;
    });
    EXPECT_FALSE(answerOfInterrupted(Level::End, [&] { return sem->wait(); }));
    EXPECT_FALSE(otherDone);
    sem->post();
    other.join();
    EXPECT_TRUE(otherAnswer);
}

/// The waiter has looked at the level and does not wait yet: raise() must not be through with its notification before.
TEST(Interrupt, IsNotLostBetweenTheLookAtItAndTheWait) {
    Interrupt token;
    const Interrupt::Bind bind(token);
    std::mutex mutex;
    std::condition_variable wake;
    std::thread raiser;
    bool woken = false;
    {
        const Interrupt::Waiting waiting(mutex, wake);
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_FALSE(Interrupt::raised(Level::Unheard));
        raiser = std::thread([&] { token.raise(Level::End); });
        while (token.level() == Level::None) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // time for a raiser that does not wait for us
        woken = wake.wait_for(lock, std::chrono::seconds(20)) == std::cv_status::no_timeout;
    }
    raiser.join();
    EXPECT_TRUE(woken);
}

/// Raised at whatever moment of the way into a wait, the interrupt ends it: a lost one would hang the test.
TEST(Interrupt, IsNotLostOnTheWayIntoAWait) {
    constexpr int kRounds = 1000;
    Interrupt token;
    Sem sem(0);
    Mon mon;
    std::barrier step(2);
    int answeredTrue = 0;

    HostTest::Threads threads;
    mon.enterAlways();
    threads.start([&]() NO_THREAD_SAFETY_ANALYSIS {
        const Interrupt::Bind bind(token);
        for (int round = 0; round < kRounds; ++round) {
            step.arrive_and_wait();
            switch (round % 3) {
                case 0:
                    answeredTrue += sem.wait();
                    break;
                case 1:
                    answeredTrue += Thd::sleep(kLongMs);
                    break;
                case 2:
                    answeredTrue += mon.enter();
                    break;
            }
            step.arrive_and_wait();
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        step.arrive_and_wait();
        token.raise(Level::HangUp);
        step.arrive_and_wait();
        token.reset();
    }
    threads.join();
    mon.leave();
    EXPECT_EQ(answeredTrue, 0);
}

}  // namespace
