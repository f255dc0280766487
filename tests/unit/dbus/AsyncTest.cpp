#include <array>

#include "tests/unit/dbus/Bus.h"

// Asynchronous calls: the completion runs once, on the dispatch thread, and the user data is freed once.

namespace UnitTest {
namespace {

/// What became of one asynchronous call.
struct Outcome {
    std::atomic<int> completed{0};
    std::atomic<int> freed{0};
    std::atomic<bool> replied{false};
    std::string errorName;
    std::thread::id thread;
    Clock::time_point at;

    static void complete(DBus::DBusPendingCall* pending, void* data) {
        auto& self = *static_cast<Outcome*>(data);
        const DBus::MessagePtr reply(DBus::dbus_pending_call_steal_reply(pending));
        EXPECT_FALSE(DBus::dbus_pending_call_steal_reply(pending));
        self.replied = reply != nullptr;
        if (const char* name = reply ? ::dbus_message_get_error_name(reply.get()) : nullptr) self.errorName = name;
        self.thread = std::this_thread::get_id();
        self.at = Clock::now();
        EXPECT_EQ(self.freed, 0);
        ++self.completed;
    }
    static void free(void* data) { ++static_cast<Outcome*>(data)->freed; }
    bool over() const { return freed > 0; }
};

class Async : public Bus {
protected:
    bool start(const char* member, std::uint64_t timeout, Outcome* outcome) {
        return DBus::Util::callMethodAsync(connection_, timeout, methodCall(member).release(), &Outcome::complete,
                                           outcome, &Outcome::free);
    }
};

constexpr std::uint64_t kNoLimit = 0xFFFFFFFFu;

TEST_F(Async, CompletesOnTheDispatchThreadWithTheReply) {
    Dispatcher dispatcher(connection_);
    Outcome outcome;
    ASSERT_TRUE(start("Answer", kNoLimit, &outcome));
    ASSERT_TRUE(waitUntil([&] { return outcome.over(); }));
    EXPECT_EQ(outcome.completed, 1);
    EXPECT_EQ(outcome.freed, 1);
    EXPECT_TRUE(outcome.replied);
    EXPECT_EQ(outcome.thread, dispatcher.id());
}

TEST_F(Async, CompletesWithAnErrorReply) {
    const Dispatcher dispatcher(connection_);
    Outcome outcome;
    ASSERT_TRUE(start("Fail", 1000, &outcome));
    ASSERT_TRUE(waitUntil([&] { return outcome.over(); }));
    EXPECT_EQ(outcome.errorName, "test.Error.Scripted");
}

TEST_F(Async, CompletesWithoutAReplyWhenItsTimeHasPassedOnAQuietBus) {
    const Dispatcher dispatcher(connection_);
    for (const int timeoutMs : {250, 60, 0}) {
        const milliseconds limit(timeoutMs + 200);
        const auto took = leastOf(limit, [&] {
            Outcome outcome;
            ASSERT_TRUE(start("Never", static_cast<std::uint64_t>(timeoutMs), &outcome));
            ASSERT_TRUE(waitUntil([&] { return outcome.over(); }));
            EXPECT_EQ(outcome.completed, 1);
            EXPECT_FALSE(outcome.replied);
        });
        EXPECT_GE(took, milliseconds(timeoutMs));
        EXPECT_LT(took, limit);
    }
}

TEST_F(Async, KeepsEachOfManyDeadlines) {
    const Dispatcher dispatcher(connection_);
    Outcome slow, fast, medium;
    const auto started = Clock::now();
    ASSERT_TRUE(start("Never", 200, &slow));
    ASSERT_TRUE(start("Never", 50, &fast));
    ASSERT_TRUE(start("Never", 120, &medium));
    ASSERT_TRUE(waitUntil([&] { return slow.over(); }));
    EXPECT_TRUE(fast.over() && medium.over());
    EXPECT_LE(fast.at, medium.at);
    EXPECT_LE(medium.at, slow.at);
    EXPECT_GE(fast.at - started, milliseconds(50));
    EXPECT_GE(medium.at - started, milliseconds(120));
    EXPECT_GE(slow.at - started, milliseconds(200));
}

TEST_F(Async, TakesTheLargestTimeOut) {
    const Dispatcher dispatcher(connection_);
    Outcome outcome;
    ASSERT_TRUE(start("Hold", kNoLimit - 1, &outcome));
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    EXPECT_FALSE(outcome.over());
    held->reply();
    ASSERT_TRUE(waitUntil([&] { return outcome.over(); }));
    EXPECT_TRUE(outcome.replied);
}

TEST_F(Async, LosesNoCompletionHoweverEarlyTheReplyIs) {
    const Dispatcher dispatcher(connection_);
    for (int round = 0; round < 40; ++round) {
        std::array<Outcome, 50> outcomes;
        for (Outcome& outcome : outcomes) ASSERT_TRUE(start("Answer", kNoLimit, &outcome));
        for (Outcome& outcome : outcomes) {
            ASSERT_TRUE(waitUntil([&] { return outcome.over(); }));
            ASSERT_EQ(outcome.completed, 1);
        }
    }
}

TEST_F(Async, AfterTheCloseIsNotSentAndNothingIsCalled) {
    connection_.close();
    Outcome outcome;
    EXPECT_FALSE(start("Answer", kNoLimit, &outcome));
    EXPECT_EQ(outcome.completed, 0);
    EXPECT_EQ(outcome.freed, 0);
}

TEST_F(Async, OutstandingAtTheCloseIsFreedOnly) {
    Outcome outstanding, queued;
    ASSERT_TRUE(start("Never", kNoLimit, &outstanding));
    ASSERT_TRUE(start("Answer", kNoLimit, &queued));
    EXPECT_TRUE(callPeer(connection_, "Answer"));  // the answer to the one before has come in, and nobody dispatches
    connection_.close();
    for (const Outcome* outcome : {&outstanding, &queued}) {
        EXPECT_EQ(outcome->freed, 1);
        EXPECT_EQ(outcome->completed, 0);
    }
}

TEST_F(Async, OutstandingWhenTheBusDiesIsFreedOnlyByTheClose) {
    Outcome outcome;
    ASSERT_TRUE(start("Never", kNoLimit, &outcome));
    bus_.kill();
    EXPECT_TRUE(waitUntil([&] { return !DBus::dbus_connection_get_is_connected(connection_); }));
    while (DBus::dbus_connection_read_write_dispatch(connection_, 500)) {
    }
    EXPECT_EQ(outcome.freed, 0);
    connection_.close();
    EXPECT_EQ(outcome.freed, 1);
    EXPECT_EQ(outcome.completed, 0);
}

TEST_F(Async, AnsweredBeforeTheBusDiesIsCompletedStill) {
    Outcome outcome;
    ASSERT_TRUE(start("Answer", kNoLimit, &outcome));
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    bus_.kill();
    EXPECT_TRUE(waitUntil([&] { return !DBus::dbus_connection_get_is_connected(connection_); }));
    while (DBus::dbus_connection_read_write_dispatch(connection_, 500)) {
    }
    EXPECT_EQ(outcome.completed, 1);
    EXPECT_EQ(outcome.freed, 1);
    EXPECT_TRUE(outcome.replied);
}

TEST_F(Async, DropsAReplyThatComesAfterTheTimeOut) {
    const Dispatcher dispatcher(connection_);
    Outcome outcome;
    ASSERT_TRUE(start("Hold", 10, &outcome));
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    ASSERT_TRUE(waitUntil([&] { return outcome.over(); }));
    held->reply();
    peer_.flush();
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    EXPECT_EQ(outcome.completed, 1);
    EXPECT_EQ(outcome.freed, 1);
}

}  // namespace
}  // namespace UnitTest
