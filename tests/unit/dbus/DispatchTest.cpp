#include <algorithm>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "tests/unit/dbus/Bus.h"

// Dispatching: who sees a message, in which order, and what is answered when nobody wants it.

namespace UnitTest {
namespace {

constexpr const char* kRule = "type='signal',interface='test.Interface'";

/// A filter that runs a function of the test.
class Filter {
public:
    using Function = std::function<DBusHandlerResult(DBusMessage*)>;
    Filter(DBus::DBusConnection* connection, Function function)
        : connection_(connection), function_(std::move(function)) {
        DBus::dbus_connection_add_filter(connection_, &Filter::onMessage, this, nullptr);
    }
    ~Filter() { remove(); }
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;
    void remove() {
        if (connection_) DBus::dbus_connection_remove_filter(connection_, &Filter::onMessage, this);
        connection_ = nullptr;
    }

private:
    static DBusHandlerResult onMessage(DBus::DBusConnection*, DBusMessage* message, void* self) {
        return static_cast<Filter*>(self)->function_(message);
    }
    DBus::DBusConnection* connection_;
    const Function function_;
};

bool isSignal(DBusMessage* message, const char* member) {
    return ::dbus_message_is_signal(message, kInterface, member);
}

class Dispatch : public Bus {
protected:
    /// Dispatches on this thread until the condition holds.
    void dispatchUntil(const std::function<bool()>& condition) {
        const auto end = Clock::now() + kPatience;
        while (!condition()) {
            ASSERT_LT(Clock::now(), end);
            DBus::dbus_connection_read_write_dispatch(connection_, 100);
        }
    }
    void addMatch(const char* rule = kRule) {
        Error error;
        DBus::dbus_bus_add_match(connection_, rule, error);
        EXPECT_FALSE(error.isSet()) << error.message();
    }
};

TEST_F(Dispatch, OffersAMessageToTheFiltersInTheOrderTheyWereAddedUntilOneHandlesIt) {
    std::string seen;
    const auto note = [&](char name, DBusHandlerResult result) {
        return [&seen, name, result](DBusMessage* message) {
            if (!isSignal(message, "Go")) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
            seen += name;
            return result;
        };
    };
    const Filter a(connection_, note('a', DBUS_HANDLER_RESULT_NOT_YET_HANDLED));
    const Filter b(connection_, note('b', DBUS_HANDLER_RESULT_NOT_YET_HANDLED));
    const Filter c(connection_, note('c', DBUS_HANDLER_RESULT_HANDLED));
    const Filter d(connection_, note('d', DBUS_HANDLER_RESULT_HANDLED));
    addMatch();
    peer_.emit("/", kInterface, "Go");
    dispatchUntil([&] { return !seen.empty(); });
    EXPECT_EQ(seen, "abc");
}

TEST_F(Dispatch, TakesOneMessageAtATime) {
    int seen = 0;
    const Filter filter(connection_, [&](DBusMessage* message) {
        seen += isSignal(message, "Go");
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    });
    addMatch();
    for (int i = 0; i < 3; ++i) peer_.emit("/", kInterface, "Go");
    peer_.flush();
    EXPECT_TRUE(callPeer(connection_, "Answer"));  // comes behind the signals
    while (seen == 0) ASSERT_TRUE(DBus::dbus_connection_read_write_dispatch(connection_, 0));
    EXPECT_EQ(seen, 1);
    ASSERT_TRUE(DBus::dbus_connection_read_write_dispatch(connection_, 0));
    EXPECT_EQ(seen, 2);
}

TEST_F(Dispatch, WaitsForItsTimeOutOnAQuietBus) {
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    // The bus tells a few things after Hello: until they are through, a wait may be a short one.
    for (int rest = 5;; --rest) {
        const auto start = Clock::now();
        EXPECT_TRUE(DBus::dbus_connection_read_write_dispatch(connection_, 60));
        if (since(start) < milliseconds(60) && rest > 0) continue;
        EXPECT_GE(since(start), milliseconds(60));
        EXPECT_LT(since(start), milliseconds(1000));
        break;
    }
}

TEST_F(Dispatch, IsWokenWhileItWaitsAndWhenItWaitsNext) {
    for (int i = 0; i < 5; ++i) DBus::dbus_connection_read_write_dispatch(connection_, 0);
    const auto start = Clock::now();
    DBus::dbus_connection_wakeup(connection_);
    EXPECT_TRUE(DBus::dbus_connection_read_write_dispatch(connection_, -1));
    std::atomic<bool> returned{false};
    std::thread waker([&] {
        while (!returned) {
            std::this_thread::sleep_for(milliseconds(5));
            DBus::dbus_connection_wakeup(connection_);
        }
    });
    EXPECT_TRUE(DBus::dbus_connection_read_write_dispatch(connection_, -1));
    returned = true;
    waker.join();
    EXPECT_LT(since(start), kPatience);
}

TEST_F(Dispatch, DoesNotShowAFilterTheMessageThatAddedIt) {
    int first = 0;
    int second = 0;
    std::unique_ptr<Filter> added;
    const Filter filter(connection_, [&](DBusMessage* message) {
        if (isSignal(message, "Go") && ++first == 1) {
            added = std::make_unique<Filter>(connection_, [&](DBusMessage* later) {
                second += isSignal(later, "Go");
                return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
            });
        }
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    });
    addMatch();
    peer_.emit("/", kInterface, "Go");
    dispatchUntil([&] { return first == 1; });
    EXPECT_EQ(second, 0);
    peer_.emit("/", kInterface, "Go");
    dispatchUntil([&] { return first == 2; });
    EXPECT_EQ(second, 1);
}

TEST_F(Dispatch, LetsAFilterRemoveItselfAndLaterOnes) {
    std::string seen;
    std::unique_ptr<Filter> a, b, c;
    const auto note = [&](char name, std::function<void()> then) {
        return [&seen, name, then = std::move(then)](DBusMessage* message) {
            if (!isSignal(message, "Go")) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
            seen += name;
            then();
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        };
    };
    a = std::make_unique<Filter>(connection_, note('a', [&] {
                                     a->remove();
                                     b->remove();
                                 }));
    b = std::make_unique<Filter>(connection_, note('b', [] {}));
    c = std::make_unique<Filter>(connection_, note('c', [] {}));
    addMatch();
    for (const char* expected : {"ac", "acc"}) {
        peer_.emit("/", kInterface, "Go");
        dispatchUntil([&] { return seen.size() >= std::string(expected).size(); });
        EXPECT_EQ(seen, expected);
    }
}

DBusHandlerResult countRuns(DBus::DBusConnection*, DBusMessage* message, void* runs) {
    *static_cast<int*>(runs) += isSignal(message, "Go");
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

TEST_F(Dispatch, RemovesTheLastOfEqualFiltersAndFreesItsDataOnce) {
    int runs = 0;
    static int freed;
    freed = 0;
    const auto free = [](void*) { ++freed; };
    DBus::dbus_connection_add_filter(connection_, &countRuns, &runs, nullptr);
    DBus::dbus_connection_add_filter(connection_, &countRuns, &runs, free);
    DBus::dbus_connection_remove_filter(connection_, &countRuns, &runs);
    EXPECT_EQ(freed, 1);
    addMatch();
    peer_.emit("/", kInterface, "Go");
    dispatchUntil([&] { return runs > 0; });
    EXPECT_EQ(runs, 1);
    DBus::dbus_connection_remove_filter(connection_, &countRuns, &runs);
    DBus::dbus_connection_remove_filter(connection_, &countRuns, &runs);  // there is none left
    EXPECT_EQ(freed, 1);
}

TEST_F(Dispatch, FreesTheDataOfFiltersThatAreLeftWithTheConnection) {
    static int freed;
    freed = 0;
    int runs = 0;
    {
        const Connection connection;
        DBus::dbus_connection_add_filter(connection, &countRuns, &runs, [](void*) { ++freed; });
    }
    EXPECT_EQ(freed, 1);
}

TEST_F(Dispatch, DeliversAgainLaterWhatAHandlerHadNoMemoryFor) {
    std::vector<Clock::time_point> delivered;
    const Filter filter(connection_, [&](DBusMessage* message) {
        if (!isSignal(message, "Go")) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        delivered.push_back(Clock::now());
        return delivered.size() < 3 ? DBUS_HANDLER_RESULT_NEED_MEMORY : DBUS_HANDLER_RESULT_HANDLED;
    });
    std::string order;
    const Filter behind(connection_, [&](DBusMessage* message) {
        if (isSignal(message, "Next")) order += std::to_string(delivered.size());
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    });
    addMatch();
    peer_.emit("/", kInterface, "Go");
    peer_.emit("/", kInterface, "Next");
    int turns = 0;
    dispatchUntil([&] {
        ++turns;
        return !order.empty();
    });
    EXPECT_EQ(order, "3");  // what follows waits
    EXPECT_GE(delivered[1] - delivered[0], milliseconds(10));
    EXPECT_LT(turns, 20);  // it does not spin
}

TEST_F(Dispatch, HandsAMessageToTheObjectOnItsExactPath) {
    static int calls;
    calls = 0;
    DBus::DBusObjectPathVTable vtable{nullptr, [](DBus::DBusConnection* connection, DBusMessage* message, void* data) {
                                          EXPECT_EQ(data, &calls);
                                          ++calls;
                                          const DBus::MessagePtr reply(DBus::dbus_message_new_method_return(message));
                                          DBus::dbus_connection_send(connection, reply.get(), nullptr);
                                          return DBUS_HANDLER_RESULT_HANDLED;
                                      }};
    Error error;
    EXPECT_TRUE(DBus::dbus_connection_try_register_object_path(connection_, "/a/b", &vtable, &calls, error));
    const Dispatcher dispatcher(connection_);
    const auto calledOn = [&](const char* path) {
        peer_.forgetCalls();
        EXPECT_TRUE(callPeer(connection_, "Answer"));
        const auto reply = peer_.call(peer_.calls()[0].sender, path, kInterface, "Method");
        return reply && ::dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
    };
    EXPECT_TRUE(calledOn("/a/b"));
    EXPECT_FALSE(calledOn("/a"));
    EXPECT_FALSE(calledOn("/a/b/c"));
    EXPECT_EQ(calls, 1);
}

TEST_F(Dispatch, RefusesATakenAndAMalformedPath) {
    static int unregistered;
    unregistered = 0;
    const DBus::DBusObjectPathVTable vtable{
        [](DBus::DBusConnection*, void*) { ++unregistered; },
        [](DBus::DBusConnection*, DBusMessage*, void*) { return DBUS_HANDLER_RESULT_NOT_YET_HANDLED; }};
    {
        const Connection connection;
        Error taken;
        EXPECT_TRUE(DBus::dbus_connection_try_register_object_path(connection, "/a", &vtable, nullptr, taken));
        EXPECT_FALSE(DBus::dbus_connection_try_register_object_path(connection, "/a", &vtable, nullptr, taken));
        EXPECT_EQ(taken.name(), DBUS_ERROR_OBJECT_PATH_IN_USE);
        EXPECT_EQ(taken.message(), "A handler is already registered for /a");
        Error malformed;
        EXPECT_FALSE(DBus::dbus_connection_try_register_object_path(connection, "a/", &vtable, nullptr, malformed));
        EXPECT_EQ(malformed.name(), DBUS_ERROR_INVALID_ARGS);
    }
    EXPECT_EQ(unregistered, 1);
}

DBusHandlerResult leave(::DBusConnection*, DBusMessage*, void*) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

TEST_F(Dispatch, AnswersWhatNobodyHandlesAsLibdbusDoes) {
    // libdbus's own connection with the same objects is the measure.
    Error error;
    ::DBusConnection* const plain = ::dbus_bus_get_private(DBUS_BUS_SYSTEM, error);
    ASSERT_TRUE(plain);
    ::dbus_connection_set_exit_on_disconnect(plain, FALSE);
    const ::DBusObjectPathVTable plainVtable{nullptr, &leave, nullptr, nullptr, nullptr, nullptr};
    const DBus::DBusObjectPathVTable vtable{
        nullptr, [](DBus::DBusConnection*, DBusMessage*, void*) { return DBUS_HANDLER_RESULT_NOT_YET_HANDLED; }};
    for (const char* path : {"/com/x/y", "/com/x/z/w", "/com/x_/y", "/b"}) {
        ::dbus_connection_try_register_object_path(plain, path, &plainVtable, nullptr, error);
        DBus::dbus_connection_try_register_object_path(connection_, path, &vtable, nullptr, error);
    }
    const std::string plainName = ::dbus_bus_get_unique_name(plain);
    std::atomic<bool> stops{false};
    std::thread plainDispatcher([&] {
        while (!stops) ::dbus_connection_read_write_dispatch(plain, 1);
    });
    const Dispatcher dispatcher(connection_);
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    const std::string name = peer_.calls()[0].sender;

    const auto answer = [&](const std::string& destination, const char* path, const char* interface,
                            const char* member) {
        FakePeer::Message message(::dbus_message_new_method_call(destination.c_str(), path, interface, member),
                                  &::dbus_message_unref);
        const auto reply = peer_.call(message);
        if (!reply) return std::string("none");
        const char* const errorName = ::dbus_message_get_error_name(reply.get());
        return std::string(errorName ? errorName : "return") + ": " + argumentsAsText(reply.get());
    };
    for (const char* path : {"/", "/com", "/com/x", "/com/x/y", "/com/x/y/z", "/com/x/z", "/com/x_", "/other"}) {
        for (const char* interface : {"org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer",
                                      "org.freedesktop.DBus.Properties", "test.Interface"}) {
            for (const char* member : {"Introspect", "Ping", "GetMachineId", "Get"}) {
                EXPECT_EQ(answer(name, path, interface, member), answer(plainName, path, interface, member))
                    << path << ' ' << interface << ' ' << member;
            }
        }
        EXPECT_EQ(answer(name, path, nullptr, "Ping"), answer(plainName, path, nullptr, "Ping")) << path;
    }
    stops = true;
    plainDispatcher.join();
    ::dbus_connection_close(plain);
    ::dbus_connection_unref(plain);
}

TEST_F(Dispatch, AnswersNothingToACallThatWantsNoReply) {
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    const std::string name = peer_.calls()[0].sender;
    FakePeer::Message message(::dbus_message_new_method_call(name.c_str(), "/", kInterface, "Unknown"),
                              &::dbus_message_unref);
    ::dbus_message_set_no_reply(message.get(), TRUE);
    const Dispatcher dispatcher(connection_);
    auto reply = std::async(std::launch::async, [&] { return peer_.call(message, milliseconds(50)); });
    EXPECT_TRUE(peer_.call(name, "/", "org.freedesktop.DBus.Peer", "Ping"));
    EXPECT_FALSE(reply.get());
}

TEST_F(Dispatch, ReportsTheEndOnlyWhenWhatCameBeforeItIsDispatched) {
    int seen = 0;
    const Filter filter(connection_, [&](DBusMessage* message) {
        seen += isSignal(message, "Go");
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    });
    addMatch();
    for (int i = 0; i < 50; ++i) peer_.emit("/", kInterface, "Go");
    peer_.flush();
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    bus_.kill();
    EXPECT_TRUE(waitUntil([&] { return !DBus::dbus_connection_get_is_connected(connection_); }));
    const auto start = Clock::now();
    while (DBus::dbus_connection_read_write_dispatch(connection_, 60000)) {
    }
    EXPECT_EQ(seen, 50);
    EXPECT_LT(since(start), kPatience);
    EXPECT_FALSE(DBus::dbus_connection_read_write_dispatch(connection_, -1));
}

TEST_F(Dispatch, EndsWhenAnotherThreadClosesTheConnection) {
    Dispatcher dispatcher(connection_);
    connection_.close();
    EXPECT_TRUE(waitUntil([&] { return dispatcher.ended(); }));
}

TEST_F(Dispatch, ServesTenThousandFilters) {
    std::vector<int> runs(10000);
    addMatch();
    for (int& run : runs) DBus::dbus_connection_add_filter(connection_, &countRuns, &run, nullptr);
    for (int i = 0; i < 20; ++i) peer_.emit("/", kInterface, "Go");
    dispatchUntil([&] { return runs.back() == 20; });
    EXPECT_EQ(std::count(runs.begin(), runs.end(), 20), 10000);
    for (int& run : runs) DBus::dbus_connection_remove_filter(connection_, &countRuns, &run);
}

/// The processor time of this thread that it takes to add so many filters and remove them, first come, first gone.
std::chrono::nanoseconds timeAddAndRemove(DBus::DBusConnection* connection, std::size_t number) {
    const auto processorTime = [] {
        timespec now{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    std::vector<int> runs(number);
    const auto start = processorTime();
    for (int& run : runs) DBus::dbus_connection_add_filter(connection, &countRuns, &run, nullptr);
    for (int& run : runs) DBus::dbus_connection_remove_filter(connection, &countRuns, &run);
    return processorTime() - start;
}

TEST_F(Dispatch, AddsAndRemovesAFilterInATimeThatDoesNotGrowWithTheirNumber) {
    auto few = std::chrono::nanoseconds::max();
    auto many = std::chrono::nanoseconds::max();
    for (int i = 0; i < 5; ++i) {
        few = std::min(few, timeAddAndRemove(connection_, 2000));
        many = std::min(many, timeAddAndRemove(connection_, 20000));
    }
    EXPECT_LT(many / few, 40);  // ten times as many; a walk through all of them each time would make it a hundred
}

}  // namespace
}  // namespace UnitTest
