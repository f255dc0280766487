#include <filesystem>
#include <future>
#include <vector>

#include "platform/host/Interrupt.h"
#include "platform/host/RequestContext.h"
#include "tests/unit/dbus/Bus.h"

// What ends a wait before its answer, what becomes of the answer then, and how many requests may wait at once.

namespace UnitTest {
namespace {

using Level = Interrupt::Level;

constexpr const char* kInterruptedText = "The wait for the reply was interrupted";

std::size_t threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

class Interrupted : public Bus {
protected:
    /// A call on a thread of its own with the token; the text of its error, empty when it got its reply.
    std::future<std::string> startCall(const char* member, DBus::LateAnswer late = nullptr, int timeoutMs = -1) {
        return std::async(std::launch::async, [this, member, late = std::move(late), timeoutMs]() mutable {
            const Interrupt::Bind bind(token_);
            Error error;
            const auto message = methodCall(member);
            const DBus::MessagePtr reply(
                late ? DBus::dbus_connection_send_with_reply_and_block(connection_, message.get(), timeoutMs, error,
                                                                       std::move(late))
                     : DBus::dbus_connection_send_with_reply_and_block(connection_, message.get(), timeoutMs, error));
            EXPECT_EQ(reply == nullptr, error.isSet());
            return error.message();
        });
    }

    Interrupt token_;
};

TEST_F(Interrupted, CallEndsAtOnceAtEnd) {
    auto call = startCall("Never");
    ASSERT_TRUE(peer_.waitForCalls(kInterface, "Never"));
    const auto start = Clock::now();
    token_.raise(Level::End);
    EXPECT_EQ(call.get(), kInterruptedText);
    EXPECT_LT(since(start), kAtOnce);
}

TEST_F(Interrupted, CallWithoutALateHandlerOutlastsAHangUp) {
    auto call = startCall("Hold");
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    token_.raise(Level::HangUp);
    EXPECT_EQ(call.wait_for(milliseconds(30)), std::future_status::timeout);
    held->reply();
    EXPECT_EQ(call.get(), "");
}

TEST_F(Interrupted, CallThatStartsInterruptedIsSentAndDoesNotWait) {
    token_.raise(Level::End);
    const auto start = Clock::now();
    EXPECT_EQ(startCall("Never").get(), kInterruptedText);
    EXPECT_LT(since(start), kAtOnce);
    EXPECT_TRUE(peer_.waitForCalls(kInterface, "Never"));
}

TEST_F(Interrupted, CallsLateAnswerReachesTheHandlerOnTheDispatchThread) {
    const Dispatcher dispatcher(connection_);
    std::promise<std::pair<std::string, std::thread::id>> answered;
    auto call = startCall("Hold", [&](DBusMessage* reply) {
        answered.set_value({argumentsAsText(reply), std::this_thread::get_id()});
    });
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    const auto start = Clock::now();
    token_.raise(Level::HangUp);
    EXPECT_EQ(call.get(), kInterruptedText);
    EXPECT_LT(since(start), kAtOnce);
    held->reply([](DBusMessageIter* iter) { append(iter, "late"); });
    auto future = answered.get_future();
    ASSERT_EQ(future.wait_for(kPatience), std::future_status::ready);
    const auto [text, thread] = future.get();
    EXPECT_EQ(text, "\"late\"");
    EXPECT_EQ(thread, dispatcher.id());
}

TEST_F(Interrupted, CallsLateErrorReachesTheHandlerToo) {
    const Dispatcher dispatcher(connection_);
    std::promise<std::string> answered;
    auto call =
        startCall("Hold", [&](DBusMessage* reply) { answered.set_value(::dbus_message_get_error_name(reply)); });
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    token_.raise(Level::End);
    EXPECT_EQ(call.get(), kInterruptedText);
    held->error("test.Error");
    auto future = answered.get_future();
    ASSERT_EQ(future.wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(future.get(), "test.Error");
}

TEST_F(Interrupted, CallAnsweredInTimeDoesNotUseTheLateHandler) {
    const Dispatcher dispatcher(connection_);
    EXPECT_EQ(startCall("Answer", [](DBusMessage*) { FAIL(); }).get(), "");
    EXPECT_EQ(startCall(
                  "Never", [](DBusMessage*) { FAIL(); }, 20)
                  .get()
                  .substr(0, 11),
              "Did not rec");
}

/// A handler that must not be called, and whose destruction shows.
DBus::LateAnswer dropped(const std::shared_ptr<int>& kept) {
    return [kept](DBusMessage*) { FAIL(); };
}

TEST_F(Interrupted, CallsLateHandlerIsDroppedWhenTheTimeHasPassed) {
    const Dispatcher dispatcher(connection_);
    const auto kept = std::make_shared<int>(0);
    const auto start = Clock::now();
    auto call = startCall("Never", dropped(kept), 150);
    ASSERT_TRUE(peer_.waitForCalls(kInterface, "Never"));
    token_.raise(Level::HangUp);
    EXPECT_EQ(call.get(), kInterruptedText);
    ASSERT_TRUE(waitUntil([&] { return kept.use_count() == 1; }));
    EXPECT_GE(since(start), milliseconds(150));
}

TEST_F(Interrupted, CallsLateHandlerIsDroppedWithTheConnection) {
    for (const bool dies : {false, true}) {
        const auto kept = std::make_shared<int>(0);
        Connection connection;
        token_.reset();
        peer_.forgetCalls();
        auto call = std::async(std::launch::async, [&] {
            const Interrupt::Bind bind(token_);
            return DBus::MessagePtr(DBus::dbus_connection_send_with_reply_and_block(
                connection, methodCall("Never").get(), -1, nullptr, dropped(kept)));
        });
        ASSERT_TRUE(peer_.waitForCalls(kInterface, "Never"));
        token_.raise(Level::HangUp);
        EXPECT_FALSE(call.get());
        EXPECT_EQ(kept.use_count(), 2);
        if (dies) {
            bus_.kill();
            while (DBus::dbus_connection_read_write_dispatch(connection, 500)) {
            }
            EXPECT_EQ(kept.use_count(), 2);
        }
        connection.close();
        EXPECT_EQ(kept.use_count(), 1);
    }
}

TEST_F(Interrupted, CallsRaceWithTheirAnswersAndEachAnswerHasOneReader) {
    // The interrupt comes about when the answer does: it is returned or goes to the handler, never both or neither.
    const Dispatcher dispatcher(connection_);
    int returnedCount = 0;
    for (int i = 0; i < 500; ++i) {
        token_.reset();
        std::atomic<int> late{0};
        auto call = startCall("Answer", [&](DBusMessage*) { ++late; });
        for (const auto until = Clock::now() + std::chrono::microseconds(i % 250); Clock::now() < until;) {
        }
        token_.raise(Level::HangUp);
        const bool returned = call.get().empty();
        returnedCount += returned;
        if (!returned) {
            ASSERT_TRUE(waitUntil([&] { return late == 1; }));
        }
        ASSERT_EQ(late, returned ? 0 : 1);
    }
    RecordProperty("returned", returnedCount);
}

TEST_F(Interrupted, RemovalOfARuleIsCarriedOutAndNoFailure) {
    constexpr const char* kRule = "type='signal',interface='test.Interface'";
    std::atomic<int> seen{0};
    const auto onMessage = [](DBus::DBusConnection*, DBusMessage* message, void* count) {
        *static_cast<std::atomic<int>*>(count) += ::dbus_message_is_signal(message, kInterface, "Go") != 0;
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    };
    DBus::dbus_connection_add_filter(connection_, onMessage, &seen, nullptr);
    const Dispatcher dispatcher(connection_);
    Error error;
    DBus::dbus_bus_add_match(connection_, kRule, error);
    EXPECT_FALSE(error.isSet());
    peer_.emit("/", kInterface, "Go");
    EXPECT_TRUE(waitUntil([&] { return seen == 1; }));
    {
        const Interrupt::Bind bind(token_);
        token_.raise(Level::End);
        DBus::dbus_bus_remove_match(connection_, kRule, error);
        EXPECT_FALSE(error.isSet()) << error.message();
    }
    EXPECT_TRUE(callPeer(connection_, "Answer"));  // the bus has worked off the removal
    peer_.emit("/", kInterface, "Go");
    peer_.flush();
    EXPECT_TRUE(callPeer(connection_, "Answer"));  // a signal would have come before this answer
    EXPECT_EQ(seen, 1);
    DBus::dbus_bus_remove_match(connection_, kRule, error);
    EXPECT_EQ(error.name(), DBUS_ERROR_MATCH_RULE_NOT_FOUND);
    DBus::dbus_connection_remove_filter(connection_, onMessage, &seen);
}

TEST_F(Interrupted, OpeningEndsAtOnceAndCleansUpByItself) {
    for (const bool dies : {false, true}) {
        bus_.freeze(true);
        const std::size_t before = threads();
        auto opening = std::async(std::launch::async, [this] {
            const Interrupt::Bind bind(token_);
            Error error;
            EXPECT_FALSE(DBus::dbus_bus_get_private(DBUS_BUS_SYSTEM, error));
            return error.message();
        });
        EXPECT_EQ(opening.wait_for(milliseconds(30)), std::future_status::timeout);
        const auto start = Clock::now();
        token_.raise(Level::End);
        EXPECT_EQ(opening.get(), kInterruptedText);
        EXPECT_LT(since(start), kAtOnce);
        if (dies) {
            bus_.kill();
        } else {
            bus_.freeze(false);
        }
        EXPECT_TRUE(waitUntil([&] { return threads() <= before; }));
        token_.reset();
    }
}

TEST(Opening, FailsWithLibdbussErrorWhenThereIsNoBus) {
    { const PrivateBus bus; }
    Error expected, error;
    EXPECT_FALSE(::dbus_bus_get_private(DBUS_BUS_SYSTEM, expected));
    EXPECT_FALSE(DBus::dbus_bus_get_private(DBUS_BUS_SYSTEM, error));
    EXPECT_TRUE(error.isSet());
    EXPECT_EQ(error.name(), expected.name());
    EXPECT_EQ(error.message(), expected.message());
    EXPECT_FALSE(DBus::dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr));
}

TEST_F(Interrupted, RequestsGetSixtyFourSlotsAndTheNextIsRefusedAsBusy) {
    std::vector<std::future<bool>> calls;
    for (std::uint32_t i = 0; i < RequestContext::kMaxBusCalls; ++i) {
        calls.push_back(std::async(std::launch::async, [&] {
            const RequestContext request;
            return callPeer(connection_, "Hold") != nullptr && !request.busy();
        }));
    }
    ASSERT_TRUE(peer_.waitForCalls(kInterface, "Hold", RequestContext::kMaxBusCalls));
    {
        const RequestContext request;
        Error error;
        EXPECT_FALSE(callPeer(connection_, "Answer", -1, error));
        EXPECT_EQ(error.name(), DBUS_ERROR_LIMITS_EXCEEDED);
        EXPECT_TRUE(request.busy());
        EXPECT_EQ(peer_.count(kInterface, "Answer"), 0u);

        // What cleans up takes no slot.
        Error match;
        DBus::dbus_bus_add_match(connection_, "type='signal'", match);
        DBus::dbus_bus_remove_match(connection_, "type='signal'", match);
        EXPECT_FALSE(match.isSet()) << match.message();
    }
    EXPECT_TRUE(callPeer(connection_, "Answer"));  // a thread without a request has no limit
    for (std::uint32_t i = 0; i < RequestContext::kMaxBusCalls; ++i) peer_.takeHeld()->reply();
    for (auto& call : calls) EXPECT_TRUE(call.get());
    const RequestContext request;
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    EXPECT_FALSE(request.busy());
}

/// Requests whose clients have hung up: their calls are sent, their threads are gone.
class GivenUp : public Interrupted {
protected:
    GivenUp() { token_.raise(Level::HangUp); }

    void takeAllSlots(DBus::DBusConnection* connection, const char* member, int timeoutMs = -1) {
        const Interrupt::Bind bind(token_);
        for (std::uint32_t i = 0; i < RequestContext::kMaxBusCalls; ++i) {
            const RequestContext request;
            Error error;
            const DBus::MessagePtr reply(DBus::dbus_connection_send_with_reply_and_block(
                connection, methodCall(member).get(), timeoutMs, error, [](DBusMessage*) {}));
            EXPECT_EQ(error.message(), kInterruptedText);
        }
    }
    /// Whether another request's call gets through; one that does gives its slot back at once.
    bool isServed() {
        const RequestContext request;
        const bool answered = callPeer(connection_, "Answer") != nullptr;
        EXPECT_NE(answered, request.busy());
        return answered;
    }
};

TEST_F(GivenUp, CallsKeepTheirSlotsUntilTheyAreAnswered) {
    takeAllSlots(connection_, "Hold");
    EXPECT_FALSE(isServed());
    EXPECT_EQ(peer_.count(kInterface, "Answer"), 0u);
    const auto first = peer_.takeHeld();
    ASSERT_TRUE(first);
    first->reply();  // and nobody dispatches it
    EXPECT_TRUE(waitUntil([&] { return isServed(); }));
    for (std::uint32_t i = 1; i < RequestContext::kMaxBusCalls; ++i) peer_.takeHeld()->reply();
}

TEST_F(GivenUp, CallsKeepTheirSlotsUntilTheirTimeHasPassed) {
    constexpr milliseconds kTime{300};
    const auto start = Clock::now();
    takeAllSlots(connection_, "Never", static_cast<int>(kTime.count()));
    EXPECT_TRUE(waitUntil([&] { return isServed(); }));
    EXPECT_GE(since(start), kTime);
}

TEST_F(GivenUp, CallsGiveTheirSlotsBackWithTheConnection) {
    Connection other;
    takeAllSlots(other, "Never");
    EXPECT_FALSE(isServed());
    other.close();
    EXPECT_TRUE(isServed());
}

}  // namespace
}  // namespace UnitTest
