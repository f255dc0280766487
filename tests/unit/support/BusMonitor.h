#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <dbus/dbus.h>

#include "tests/unit/support/Waiting.h"

namespace UnitTest {

/// Sees every message on the bus, as dbus-monitor does, with a connection and a thread of its own.
class BusMonitor {
public:
    /// Connects and becomes a monitor. Ends the test program with a message when that fails.
    explicit BusMonitor(const std::string& address);
    ~BusMonitor();
    BusMonitor(const BusMonitor&) = delete;
    BusMonitor& operator=(const BusMonitor&) = delete;

    /// The method calls so far, in the order in which the bus took them: "DESTINATION PATH
    /// INTERFACE.MEMBER(ARGUMENTS)", arguments as argumentsAsText gives them.
    std::vector<std::string> calls() const;
    /// Waits until this call was made.
    bool waitFor(const std::string& call, std::chrono::milliseconds limit = kPatience) const;

private:
    void run();

    ::DBusConnection* connection_;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::vector<std::string> calls_;
    int wake_;
    std::thread thread_;
};

}  // namespace UnitTest
