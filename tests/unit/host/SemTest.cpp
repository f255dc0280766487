#include "platform/host/Sem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <thread>

#include "platform/host/Interrupt.h"
#include "tests/unit/host/Threads.h"

namespace {

using Clock = std::chrono::steady_clock;

TEST(Sem, GivesWhatItWasMadeWithAndNoMore) {
    const Ref<Sem> sem = Sem::create(2);
    EXPECT_TRUE(sem->wait(0));
    EXPECT_TRUE(sem->wait());
    EXPECT_FALSE(sem->wait(0));
}

TEST(Sem, CountsPostsThatNobodyWaitsFor) {
    const Ref<Sem> sem = Sem::create(0);
    sem->post();
    sem->post();
    EXPECT_TRUE(sem->wait());
    EXPECT_TRUE(sem->wait(1));
    EXPECT_FALSE(sem->wait(1));
}

TEST(Sem, WaitsAsLongAsItIsTold) {
    const Ref<Sem> sem = Sem::create(0);
    const Clock::time_point begin = Clock::now();
    EXPECT_FALSE(sem->wait(30));
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(30));
}

TEST(Sem, APostWakesAWaiter) {
    const Ref<Sem> sem = Sem::create(0);
    std::atomic<int> woken = 0;
    HostTest::Threads threads;
    for (int waiter = 0; waiter < 3; ++waiter) {
        threads.start([&] { woken += sem->wait(60'000); });
    }
    for (int post = 0; post < 3; ++post) sem->post();
    threads.join();
    EXPECT_EQ(woken, 3);
    EXPECT_FALSE(sem->wait(0));
}

TEST(Sem, MayGoWithTheThreadThatAPostWokeUp) {
    constexpr int kRounds = 500;
    std::barrier step(2);
    Ref<Sem> shared;
    HostTest::Threads threads;
    threads.start([&] {
        for (int round = 0; round < kRounds; ++round) {
            step.arrive_and_wait();
            Ref<Sem> mine;
            mine.swap(shared);
            step.arrive_and_wait();
            mine->wait();
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        shared = Sem::create(0);
        Sem* const raw = shared.get();
        step.arrive_and_wait();
        step.arrive_and_wait();
        raw->post();
    }
}

/// A post and an interrupt meet the same waiter while another one waits, too. Whichever of the two the first answers
/// to, the count is not lost: when it does not take it, the other is woken for it, without a further post.
TEST(Sem, LosesNoPostThatMeetsAnInterrupt) {
    constexpr int kRounds = 1000;
    constexpr std::uint32_t kPatienceMs = 20'000;
    Sem sem(0);
    Interrupt token;
    std::barrier step(3);
    std::barrier answered(2);
    bool firstTook = false;
    int othersTaken = 0;

    HostTest::Threads threads;
    threads.start([&] {
        const Interrupt::Bind bind(token);
        for (int round = 0; round < kRounds; ++round) {
            step.arrive_and_wait();
            firstTook = sem.wait();
            token.reset();
            answered.arrive_and_wait();
        }
    });
    threads.start([&] {
        for (int round = 0; round < kRounds; ++round) {
            step.arrive_and_wait();
            othersTaken += sem.wait(kPatienceMs);
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        step.arrive_and_wait();
        std::this_thread::sleep_for(std::chrono::microseconds(round % 128));  // meets them on the way in and asleep
        sem.post();
        token.raise(Interrupt::Level::Unheard);
        answered.arrive_and_wait();
        if (firstTook) sem.post();
    }
    threads.join();
    EXPECT_EQ(othersTaken, kRounds);
    EXPECT_FALSE(sem.wait(0));
}

TEST(Sem, ManyThreadsTakeExactlyWhatManyThreadsPost) {
    constexpr int kEach = 2000;
    Sem sem(0);
    std::atomic<int> taken = 0;
    HostTest::Threads threads;
    for (int pair = 0; pair < 3; ++pair) {
        threads.start([&] {
            for (int post = 0; post < kEach; ++post) sem.post();
        });
        threads.start([&] {
            for (int wait = 0; wait < kEach; ++wait) taken += sem.wait(60'000);
        });
    }
    threads.join();
    EXPECT_EQ(taken, 3 * kEach);
    EXPECT_FALSE(sem.wait(0));
}

}  // namespace
