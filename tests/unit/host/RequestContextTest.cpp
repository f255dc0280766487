#include "platform/host/RequestContext.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <optional>
#include <utility>

#include "tests/unit/host/Threads.h"

namespace {

using BusCall = RequestContext::BusCall;

TEST(RequestContext, IsBoundToItsThreadAndNests) {
    EXPECT_EQ(RequestContext::current(), nullptr);
    const RequestContext outer;
    {
        const RequestContext inner;
        EXPECT_EQ(RequestContext::current(), &inner);
        HostTest::Threads threads;
        threads.start([] { EXPECT_EQ(RequestContext::current(), nullptr); });
    }
    EXPECT_EQ(RequestContext::current(), &outer);
}

TEST(RequestContext, GrantsAllSlotsAndRefusesOnePastThem) {
    std::deque<BusCall> calls;
    {
        const RequestContext first;
        for (std::uint32_t call = 0; call < RequestContext::kMaxBusCalls; ++call) {
            EXPECT_TRUE(calls.emplace_back().granted());
        }
        EXPECT_FALSE(first.busy());

        const RequestContext second;
        EXPECT_FALSE(BusCall().granted());
        EXPECT_TRUE(second.busy());
        EXPECT_FALSE(first.busy());

        calls.clear();
        EXPECT_FALSE(BusCall().granted()) << "a request that was refused once is not tried again";
    }
    const RequestContext third;
    EXPECT_TRUE(BusCall().granted());
    EXPECT_FALSE(third.busy());
}

TEST(RequestContext, ThreadsWithoutOneNeedNoSlot) {
    std::deque<BusCall> calls;
    const RequestContext request;
    while (calls.emplace_back().granted()) {
    }
    bool granted = false;
    HostTest::Threads threads;
    threads.start([&] { granted = BusCall().granted(); });
    threads.join();
    EXPECT_TRUE(granted);
    EXPECT_EQ(calls.size(), RequestContext::kMaxBusCalls + 1);
}

TEST(RequestContext, ASlotMovesOnWithItsCallAndIsGivenBackOnce) {
    std::optional<BusCall> moved;
    std::deque<BusCall> calls;
    {
        const RequestContext request;
        BusCall left;
        moved.emplace(std::move(left));
        EXPECT_TRUE(moved->granted());
    }
    const RequestContext request;
    while (calls.emplace_back().granted()) {
    }
    EXPECT_EQ(calls.size(), RequestContext::kMaxBusCalls) << "all but the one that moved, and one refused";
    HostTest::Threads threads;
    threads.start([&] { moved.reset(); });
    threads.join();
    const RequestContext next;
    EXPECT_TRUE(calls.emplace_back().granted());
    EXPECT_FALSE(BusCall().granted());
}

TEST(RequestContext, NeverGrantsMoreThanThereAreWhenThreadsCompete) {
    std::atomic<std::uint32_t> now = 0;
    std::atomic<std::uint32_t> most = 0;
    HostTest::Threads threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.start([&] {
            for (int round = 0; round < 50; ++round) {
                const RequestContext request;
                std::deque<BusCall> calls;
                for (int call = 0; call < 24 && calls.emplace_back().granted(); ++call) {
                    std::uint32_t seen = most;
                    const std::uint32_t count = ++now;
                    while (count > seen && !most.compare_exchange_weak(seen, count)) {
                    }
                }
                for (const BusCall& call : calls) now -= call.granted();
            }
        });
    }
    threads.join();
    EXPECT_LE(most, RequestContext::kMaxBusCalls);
    EXPECT_GE(most, 24u);
}

}  // namespace
