#include <algorithm>
#include <future>
#include <mutex>
#include <vector>

#include "tests/unit/dbus/Bus.h"

// Blocking calls: what they return, how long they take, and that they wait for their own answer only.

namespace UnitTest {
namespace {

class Call : public Bus {};

TEST_F(Call, ReturnsTheReply) {
    peer_.on(kInterface, "Answer", FakePeer::answers([](DBusMessageIter* iter) { append(iter, "yes"); }));
    Error error;
    const auto reply = callPeer(connection_, "Answer", 1000, error);
    ASSERT_TRUE(reply) << error.name();
    EXPECT_EQ(argumentsAsText(reply.get()), "\"yes\"");
    EXPECT_FALSE(error.isSet());
}

TEST_F(Call, TurnsAnErrorReplyIntoTheError) {
    Error error;
    EXPECT_FALSE(callPeer(connection_, "Fail", 1000, error));
    EXPECT_EQ(error.name(), "test.Error.Scripted");
    EXPECT_EQ(error.message(), "as told");
}

TEST_F(Call, MayBeMadeWithoutAnError) {
    EXPECT_FALSE(callPeer(connection_, "Fail"));
    EXPECT_TRUE(callPeer(connection_, "Answer"));
}

TEST_F(Call, MayBeMadeTwiceWithOneMessage) {
    const auto message = methodCall("Answer");
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(DBus::MessagePtr(
            DBus::dbus_connection_send_with_reply_and_block(connection_, message.get(), 1000, nullptr)));
    }
    EXPECT_EQ(peer_.count(kInterface, "Answer"), 2u);
}

TEST_F(Call, TimesOutOnTimeOnAQuietBusWithLibdbussError) {
    const Dispatcher dispatcher(connection_);
    for (const int timeoutMs : {0, 1, 20, 250}) {
        const milliseconds limit(timeoutMs + 200);
        const auto took = leastOf(limit, [&] {
            Error error;
            EXPECT_FALSE(callPeer(connection_, "Never", timeoutMs, error));
            EXPECT_EQ(error.name(), DBUS_ERROR_NO_REPLY);
            EXPECT_EQ(error.message(),
                      "Did not receive a reply. Possible causes include: the remote application did not send a reply, "
                      "the message bus security policy blocked the reply, the reply timeout expired, or the network "
                      "connection was broken.");
        });
        EXPECT_GE(took, milliseconds(timeoutMs));
        EXPECT_LT(took, limit);
    }
}

TEST_F(Call, DropsAReplyThatComesAfterTheTimeOut) {
    EXPECT_FALSE(callPeer(connection_, "Hold", 10));
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    held->reply();
    peer_.flush();
    EXPECT_TRUE(callPeer(connection_, "Answer"));
}

TEST_F(Call, WithoutLimitWaitsForTheReply) {
    auto reply =
        std::async(std::launch::async, [&] { return callPeer(connection_, "Hold", DBUS_TIMEOUT_INFINITE) != nullptr; });
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    EXPECT_EQ(reply.wait_for(milliseconds(30)), std::future_status::timeout);
    held->reply();
    EXPECT_TRUE(reply.get());
}

TEST_F(Call, IsAnsweredOnTheDispatchThreadToo) {
    struct Context {
        std::atomic<int> answered{0};
        static DBusHandlerResult onMessage(DBus::DBusConnection* connection, DBusMessage* message, void* self) {
            if (::dbus_message_is_signal(message, kInterface, "Go"))
                static_cast<Context*>(self)->answered += callPeer(connection, "Answer") != nullptr;
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
    } context;
    DBus::dbus_bus_add_match(connection_, "interface='test.Interface'", nullptr);
    DBus::dbus_connection_add_filter(connection_, &Context::onMessage, &context, nullptr);
    const Dispatcher dispatcher(connection_);
    EXPECT_TRUE(callPeer(connection_, "Answer"));  // the bus has the rule
    peer_.emit("/", kInterface, "Go");
    EXPECT_TRUE(waitUntil([&] { return context.answered == 1; }));
    DBus::dbus_connection_remove_filter(connection_, &Context::onMessage, &context);
}

TEST_F(Call, OfManyThreadsEachGetsItsOwnAnswer) {
    peer_.on(kInterface, "Echo", [](const FakePeer::Request& request) {
        request.reply([&](DBusMessageIter* iter) { append(iter, request.call().arguments); });
    });
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const auto message = methodCall("Echo");
                const std::int32_t number = t * 1000 + i;
                DBusMessageIter iter;
                ::dbus_message_iter_init_append(message.get(), &iter);
                append(&iter, number);
                const DBus::MessagePtr reply(
                    DBus::dbus_connection_send_with_reply_and_block(connection_, message.get(), -1, nullptr));
                if (!reply || argumentsAsText(reply.get()) != '"' + std::to_string(number) + '"') ++wrong;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(Call, OfAMegabyteIsWrittenWhole) {
    // More than the socket takes at once: the I/O thread writes the rest.
    const std::string text(1 << 20, 'x');
    peer_.on(kInterface, "Length", [](const FakePeer::Request& request) {
        request.reply([&](DBusMessageIter* iter) { append(iter, std::uint64_t{request.call().arguments.size()}); });
    });
    const auto message = methodCall("Length");
    DBusMessageIter iter;
    ::dbus_message_iter_init_append(message.get(), &iter);
    append(&iter, text);
    const DBus::MessagePtr reply(
        DBus::dbus_connection_send_with_reply_and_block(connection_, message.get(), -1, nullptr));
    ASSERT_TRUE(reply);
    EXPECT_EQ(argumentsAsText(reply.get()), std::to_string(text.size() + 2));
}

TEST_F(Call, OnAClosedConnectionFailsAtOnce) {
    connection_.close();
    Error error;
    EXPECT_FALSE(callPeer(connection_, "Answer", -1, error));
    EXPECT_EQ(error.name(), DBUS_ERROR_DISCONNECTED);
    EXPECT_FALSE(DBus::dbus_connection_get_is_connected(connection_));
    EXPECT_FALSE(DBus::dbus_connection_send(connection_, methodCall("Answer").get(), nullptr));
}

/// libdbus's own connection, used by one thread only.
class PlainConnection {
public:
    PlainConnection() : connection_(::dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr)) {
        ::dbus_connection_set_exit_on_disconnect(connection_, FALSE);
    }
    ~PlainConnection() {
        ::dbus_connection_close(connection_);
        ::dbus_connection_unref(connection_);
    }
    PlainConnection(const PlainConnection&) = delete;
    PlainConnection& operator=(const PlainConnection&) = delete;
    bool call() const {
        return DBus::MessagePtr(::dbus_connection_send_with_reply_and_block(connection_, methodCall("Answer").get(), -1,
                                                                            nullptr)) != nullptr;
    }

private:
    ::DBusConnection* const connection_;
};

/// What calls took.
class Durations {
public:
    template <class MakeCall>
    void time(MakeCall makeCall) {
        const auto start = Clock::now();
        EXPECT_TRUE(makeCall());
        took_.push_back(Clock::now() - start);
    }
    std::chrono::microseconds percentile(std::size_t percent) {
        std::sort(took_.begin(), took_.end());
        return std::chrono::duration_cast<std::chrono::microseconds>(took_[took_.size() * percent / 100]);
    }

private:
    std::vector<Clock::duration> took_;
};

/// 2,000 calls of a request thread, in turn with as many on a plain connection of libdbus, which show how busy the
/// machine is. Less than 5 ms at the 99th percentile, in one round of five, as a machine may become busy meanwhile. On
/// a busy one nothing can be said of that percentile, but what this is after costs 400 ms in each call.
void expectFastCalls(DBus::DBusConnection* connection) {
    const PlainConnection plain;
    for (int round = 1;; ++round) {
        Durations usual, ours;
        std::thread([&] {
            for (int i = 0; i < 2000; ++i) {
                usual.time([&] { return plain.call(); });
                ours.time([&] { return callPeer(connection, "Answer") != nullptr; });
            }
        }).join();
        const auto p99 = ours.percentile(99);
        ::testing::Test::RecordProperty("p99_us", std::to_string(p99.count()));
        ::testing::Test::RecordProperty("plain_p99_us", std::to_string(usual.percentile(99).count()));
        if (p99 < milliseconds(5)) return;
        if (usual.percentile(99) > milliseconds(1)) {
            EXPECT_LT(ours.percentile(50), milliseconds(100));
            return;
        }
        ASSERT_LT(round, 5) << p99.count() << " us, plain " << usual.percentile(99).count() << " us";
    }
}

TEST_F(Call, TakesARoundTripOnAQuietBus) {
    const Dispatcher dispatcher(connection_);
    expectFastCalls(connection_);
}

TEST_F(Call, TakesARoundTripWhileAnotherCallHangs) {
    const Dispatcher dispatcher(connection_);
    std::thread hanging([&] { EXPECT_TRUE(callPeer(connection_, "Hold")); });
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    expectFastCalls(connection_);
    held->reply();
    hanging.join();
}

TEST_F(Call, TakesARoundTripWhileTheDispatchThreadWaitsForTheCallersLock) {
    struct Context {
        std::mutex lock;
        std::atomic<bool> waits{false};
        static DBusHandlerResult onMessage(DBus::DBusConnection*, DBusMessage* message, void* self) {
            auto& context = *static_cast<Context*>(self);
            if (::dbus_message_is_signal(message, kInterface, "Go")) {
                context.waits = true;
                const std::lock_guard guard(context.lock);
            }
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
    } context;
    DBus::dbus_bus_add_match(connection_, "interface='test.Interface'", nullptr);
    DBus::dbus_connection_add_filter(connection_, &Context::onMessage, &context, nullptr);
    {
        const Dispatcher dispatcher(connection_);
        EXPECT_TRUE(callPeer(connection_, "Answer"));
        const std::lock_guard guard(context.lock);
        peer_.emit("/", kInterface, "Go");
        ASSERT_TRUE(waitUntil([&] { return context.waits.load(); }));
        expectFastCalls(connection_);
    }
    DBus::dbus_connection_remove_filter(connection_, &Context::onMessage, &context);
}

}  // namespace
}  // namespace UnitTest
