#pragma once

#include <future>
#include <mutex>
#include <thread>

#include "service/Service.h"
#include "tests/unit/support/Waiting.h"

namespace UnitTest {

/// A service with a thread of its own as its main thread, which does what the process's main does: create, initialise,
/// run, release. The node tree is the test program's (NodeRoot.h), the bus its PrivateBus.
///
/// The test reaches the service from other threads, as requests do, and keeps no reference to it.
class RunningService {
public:
    enum class Start { NotCreated, NotInitialised, Running };

    /// Returns when the service runs, or could not be started.
    RunningService();
    /// Stops it.
    ~RunningService();
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    Start start() const { return start_; }
    /// Only while it runs.
    Services::Bluetooth::Linux::Service* operator->() const { return service_; }

    /// As a client's STOP does; without effect when it has ended already.
    void requestStop();
    /// Requests a stop and waits for the end.
    void stop();
    /// Waits until the service is released; false when it is not within the limit.
    bool waitForEnd(std::chrono::milliseconds limit = kPatience) const;

private:
    void live(std::promise<Start> started);

    Start start_ = Start::NotCreated;
    std::mutex lock_;
    Services::Bluetooth::Linux::Service* service_ = nullptr;  // null again when run() has returned
    std::promise<void> end_;
    std::future<void> ended_;
    std::thread thread_;
};

}  // namespace UnitTest
