#include <memory>
#include <random>
#include <vector>

#include "platform/host/RequestContext.h"
#include "tests/unit/dbus/Bus.h"

// The end of a connection, by the bus's death or by the close: everybody is told, at once, and nothing is left behind.

namespace UnitTest {
namespace {

class Loss : public Bus {};

/// Asynchronous calls of one round: how many were made, and what became of them.
struct Tally {
    std::atomic<int> made{0};
    std::atomic<int> completed{0};
    std::atomic<int> freed{0};
};

/// Calls, blocking and asynchronous, until the connection is lost.
void callUntilLost(DBus::DBusConnection* connection, Tally& tally, int number) {
    const auto complete = [](DBus::DBusPendingCall* pending, void* data) {
        DBus::MessagePtr(DBus::dbus_pending_call_steal_reply(pending));
        ++static_cast<Tally*>(data)->completed;
    };
    const auto free = [](void* data) { ++static_cast<Tally*>(data)->freed; };
    for (int i = 0;; ++i) {
        const char* const member = (i + number) % 3 == 0 ? "Never" : "Answer";
        if ((i + number) % 4 == 0) {
            // Each is counted first: it may be over before the call returns.
            ++tally.made;
            if (!DBus::Util::callMethodAsync(connection, 0xFFFFFFFFu, methodCall(member).release(), complete, &tally,
                                             free)) {
                --tally.made;
                return;
            }
        } else {
            Error error;
            const bool answered = callPeer(connection, member, -1, error) != nullptr;
            if (!answered && error.name() == DBUS_ERROR_DISCONNECTED) return;
            // The peer's own connection may be the first to go; the bus has that much time to say so.
            if (!answered) {
                EXPECT_EQ(error.name().rfind("org.freedesktop.DBus.Error.", 0), 0u) << error.name();
            }
        }
    }
}

TEST(BusDeath, AThousandTimesWithCallsOutstandingTellsEveryWaiterWithinASecond) {
    std::mt19937 random(1);
    int slow = 0;
    for (int round = 0; round < 1000; ++round) {
        PrivateBus bus;
        FakePeer peer(PrivateBus::address());
        peer.on(kInterface, "Answer", FakePeer::answers());
        peer.on(kInterface, "Never", FakePeer::silent());
        Connection connection;
        const Dispatcher dispatcher(connection);
        Tally tally;
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { callUntilLost(connection, tally, i); });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));  // the death comes at any moment
        bus.kill();
        const auto start = Clock::now();
        for (auto& thread : threads) thread.join();
        ASSERT_TRUE(waitUntil([&] { return dispatcher.ended(); }));
        slow += since(start) >= milliseconds(1000);
        ASSERT_LT(since(start), kAtOnce);
        connection.close();
        ASSERT_EQ(tally.freed, tally.made);
        ASSERT_LE(tally.completed, tally.made);
    }
    EXPECT_LE(slow, 5);  // a busy machine may stall a few
}

TEST_F(Loss, IsToldToTheRequestsWhoseCallsItEnds) {
    bus_.freeze(true);
    std::thread waiting([&] {
        const RequestContext request;
        EXPECT_FALSE(callPeer(connection_, "Answer"));
        EXPECT_TRUE(request.lost());
    });
    bus_.kill();
    waiting.join();
    const RequestContext late;
    EXPECT_FALSE(late.lost());
    EXPECT_FALSE(callPeer(connection_, "Answer"));
    EXPECT_TRUE(late.lost());
}

TEST_F(Loss, IsNotToldToARequestWhoseCallFails) {
    const RequestContext request;
    EXPECT_FALSE(callPeer(connection_, "Fail"));
    EXPECT_FALSE(callPeer(connection_, "Never", 20));
    EXPECT_FALSE(request.lost());
}

TEST_F(Loss, OfAFrozenBusEndsItsCalls) {
    bus_.freeze(true);
    std::vector<std::thread> threads;
    std::atomic<int> disconnected{0};
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            Error error;
            EXPECT_FALSE(callPeer(connection_, "Answer", -1, error));
            disconnected += error.name() == DBUS_ERROR_DISCONNECTED;
        });
    }
    bus_.kill();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(disconnected, 8);
}

TEST_F(Loss, IsNoticedWithoutAnyCall) {
    EXPECT_TRUE(DBus::dbus_connection_get_is_connected(connection_));
    const Dispatcher dispatcher(connection_);
    bus_.kill();
    EXPECT_TRUE(waitUntil([&] { return dispatcher.ended(); }));
    EXPECT_FALSE(DBus::dbus_connection_get_is_connected(connection_));
    Error error;
    const auto start = Clock::now();
    EXPECT_FALSE(callPeer(connection_, "Answer", -1, error));
    EXPECT_EQ(error.name(), DBUS_ERROR_DISCONNECTED);
    Error match;
    DBus::dbus_bus_remove_match(connection_, "type='signal'", match);
    EXPECT_EQ(match.name(), DBUS_ERROR_DISCONNECTED);
    EXPECT_LT(since(start), kAtOnce);
}

TEST_F(Loss, ByTheCloseTellsEveryWaiterAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> disconnected{0};
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([&] {
            Error error;
            EXPECT_FALSE(callPeer(connection_, "Never", DBUS_TIMEOUT_INFINITE, error));
            disconnected += error.name() == DBUS_ERROR_DISCONNECTED;
        });
    }
    ASSERT_TRUE(peer_.waitForCalls(kInterface, "Never", 16));
    const auto start = Clock::now();
    connection_.close();
    for (auto& thread : threads) thread.join();
    EXPECT_LT(since(start), kAtOnce);
    EXPECT_EQ(disconnected, 16);
}

TEST(Close, OutlivesTheLastReferenceOfItsOwnerWhileCallsWait) {
    for (int round = 0; round < 200; ++round) {
        static std::unique_ptr<PrivateBus> bus;
        static std::unique_ptr<FakePeer> peer;
        if (round == 0) {
            bus = std::make_unique<PrivateBus>();
            peer = std::make_unique<FakePeer>(PrivateBus::address());
            peer->on(kInterface, "Never", FakePeer::silent());
        }
        peer->forgetCalls();
        DBus::DBusConnection* const connection = DBus::dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        ASSERT_TRUE(connection);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) threads.emplace_back([&] { EXPECT_FALSE(callPeer(connection, "Never")); });
        ASSERT_TRUE(peer->waitForCalls(kInterface, "Never", 4));
        DBus::dbus_connection_close(connection);
        DBus::dbus_connection_unref(connection);
        for (auto& thread : threads) thread.join();
        if (round == 199) {
            peer.reset();
            bus.reset();
        }
    }
}

TEST_F(Loss, ByTheCloseSendsWhatWasQueued) {
    const Connection other;
    for (int i = 0; i < 500; ++i) {
        const auto message = methodCall("Answer");
        ::dbus_message_set_no_reply(message.get(), TRUE);
        EXPECT_TRUE(DBus::dbus_connection_send(connection_, message.get(), nullptr));
    }
    connection_.close();
    EXPECT_TRUE(peer_.waitForCalls(kInterface, "Answer", 500));
}

TEST_F(Loss, ByTheCloseTakesNoLongerThanItsLimitOnABusThatDoesNotRead) {
    bus_.freeze(true);
    const std::string text(1 << 20, 'x');
    for (int i = 0; i < 8; ++i) {
        const auto message = methodCall("Answer");
        DBusMessageIter iter;
        ::dbus_message_iter_init_append(message.get(), &iter);
        append(&iter, text);
        EXPECT_TRUE(DBus::dbus_connection_send(connection_, message.get(), nullptr));
    }
    const auto start = Clock::now();
    connection_.close();
    EXPECT_LT(since(start), kAtOnce);
    bus_.freeze(false);
}

TEST_F(Loss, OfTheConnectionFromInsideAHandlerEndsTheDispatching) {
    DBus::dbus_bus_add_match(connection_, "interface='test.Interface'", nullptr);
    const auto closeIt = [](DBus::DBusConnection* connection, DBusMessage* message, void*) {
        if (::dbus_message_is_signal(message, kInterface, "Go")) DBus::dbus_connection_close(connection);
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    };
    DBus::dbus_connection_add_filter(connection_, closeIt, nullptr, nullptr);
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    peer_.emit("/", kInterface, "Go");
    const auto start = Clock::now();
    while (DBus::dbus_connection_read_write_dispatch(connection_, 500)) ASSERT_LT(since(start), kPatience);
}

TEST_F(Loss, ByTheCloseDropsAMessageThatIsWantedAgain) {
    DBus::dbus_bus_add_match(connection_, "interface='test.Interface'", nullptr);
    const auto onMessage = [](DBus::DBusConnection* connection, DBusMessage* message, void*) {
        if (!::dbus_message_is_signal(message, kInterface, "Go")) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        DBus::dbus_connection_close(connection);
        return DBUS_HANDLER_RESULT_NEED_MEMORY;
    };
    DBus::dbus_connection_add_filter(connection_, onMessage, nullptr, nullptr);
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    peer_.emit("/", kInterface, "Go");
    const auto start = Clock::now();
    while (DBus::dbus_connection_read_write_dispatch(connection_, 500)) ASSERT_LT(since(start), kPatience);
}

}  // namespace
}  // namespace UnitTest
