#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "agent/AuthenticationAgent.h"
#include "tests/unit/support/FakeBluez.h"
#include "tests/unit/support/LogCapture.h"
#include "tests/unit/support/PrivateBus.h"

namespace UnitTest {

namespace DBus = Libraries::Platform::Posix::DBus;
using Services::Bluetooth::Linux::AuthenticationAgent;

inline constexpr const char* kAgentPath = "/com/kelvo/bluetooth/service";

/// A connection of the host's library to the test's bus.
class Connection {
public:
    Connection() {
        DBusError error;
        DBus::dbus_error_init(&error);
        connection_ = DBus::dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
        if (!connection_) throw std::runtime_error(error.message);
    }
    ~Connection() {
        DBus::dbus_connection_close(connection_);
        DBus::dbus_connection_unref(connection_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    DBus::DBusConnection* get() const { return connection_; }

private:
    DBus::DBusConnection* connection_;
};

/// Collects the events of one device.
class Listener final : public RefCount, public AuthenticationAgent::EventListener {
public:
    void handleEvent(const AuthenticationAgent::Event& event) override {
        ASSERT_EQ(event.type, AuthenticationAgent::EVENT_DISPLAY_PINCODE);
        ASSERT_EQ(event.parameters.size(), 1u);
        const NodeValue& pincode = event.parameters.front();
        EXPECT_TRUE(pincode.isNamed("pincode"));
        EXPECT_EQ(pincode.kind, NodeValue::kString);
        pincodes.emplace_back(viewOf(pincode.text));
        if (then) then();
    }

    std::vector<std::string> pincodes;
    std::function<void()> then;  ///< run inside the event

private:
    ~Listener() override = default;
};

}  // namespace UnitTest
