#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/dbus/DBus.h"
#include "platform/dbus/Util.h"
#include "tests/unit/support/FakePeer.h"
#include "tests/unit/support/PrivateBus.h"

namespace UnitTest {

namespace DBus = Libraries::Platform::Posix::DBus;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// What ends at once ends before this, even on a busy machine; what does not would take a call's 25 s or for ever.
constexpr milliseconds kAtOnce{5000};

constexpr const char* kPeer = "org.bluez";
constexpr const char* kInterface = "test.Interface";

/// An error that a test frees, unlike the library's users.
class Error {
public:
    Error() { ::dbus_error_init(&error_); }
    ~Error() { ::dbus_error_free(&error_); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    operator DBusError*() { return &error_; }
    bool isSet() const { return ::dbus_error_is_set(&error_); }
    std::string name() const { return error_.name ? error_.name : ""; }
    std::string message() const { return error_.message ? error_.message : ""; }

private:
    DBusError error_;
};

/// A connection to the process's private bus; closed at the end of its scope.
class Connection {
public:
    Connection() {
        Error error;
        connection_ = DBus::dbus_bus_get_private(DBUS_BUS_SYSTEM, error);
        if (!connection_) ADD_FAILURE() << error.name() << ": " << error.message();
    }
    ~Connection() {
        close();
        if (connection_) DBus::dbus_connection_unref(connection_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    operator DBus::DBusConnection*() const { return connection_; }
    void close() {
        if (connection_) DBus::dbus_connection_close(connection_);
    }

private:
    DBus::DBusConnection* connection_;
};

/// The dispatch thread, as a service's main thread runs it. Ends with its scope or with the connection.
class Dispatcher {
public:
    explicit Dispatcher(DBus::DBusConnection* connection)
        : connection_(connection), thread_([this] {
              while (!stops_ && DBus::dbus_connection_read_write_dispatch(connection_, 500)) {
              }
              ended_ = true;
          }) {}
    ~Dispatcher() { stop(); }
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    void stop() {
        if (!thread_.joinable()) return;
        stops_ = true;
        DBus::dbus_connection_wakeup(connection_);
        thread_.join();
    }
    bool ended() const { return ended_; }
    std::thread::id id() const { return thread_.get_id(); }

private:
    DBus::DBusConnection* const connection_;
    std::atomic<bool> stops_{false};
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

inline DBus::MessagePtr methodCall(const char* member, const char* destination = kPeer, const char* path = "/",
                                   const char* interface = kInterface) {
    return DBus::MessagePtr(DBus::dbus_message_new_method_call(destination, path, interface, member));
}

/// Calls a method of the scripted peer and waits.
inline DBus::MessagePtr callPeer(DBus::DBusConnection* connection, const char* member, int timeoutMs = -1,
                                 DBusError* error = nullptr) {
    return DBus::MessagePtr(
        DBus::dbus_connection_send_with_reply_and_block(connection, methodCall(member).get(), timeoutMs, error));
}

/// A bus, a peer on it and a connection of the library's; nobody dispatches unless the test makes a Dispatcher.
class Bus : public ::testing::Test {
protected:
    Bus() {
        peer_.on(kInterface, "Answer", FakePeer::answers());
        peer_.on(kInterface, "Never", FakePeer::silent());
        peer_.on(kInterface, "Fail", FakePeer::fails("test.Error.Scripted", "as told"));
        peer_.on(kInterface, "Hold", peer_.holds());
    }

    PrivateBus bus_;
    FakePeer peer_{PrivateBus::address()};
    Connection connection_;
};

inline milliseconds since(Clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

/// The least that the action took in up to five attempts, which end when it is below the limit: one may be slow because
/// the machine is busy.
template <class Action>
milliseconds leastOf(milliseconds limit, Action action) {
    milliseconds least = milliseconds::max();
    for (int attempt = 0; attempt < 5 && least >= limit; ++attempt) {
        const auto start = Clock::now();
        action();
        least = std::min(least, since(start));
    }
    return least;
}

}  // namespace UnitTest
