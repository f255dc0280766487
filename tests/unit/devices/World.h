#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "devices/Device.h"
#include "devices/Devices.h"
#include "service/Service.h"
#include "tests/unit/support/FakePeer.h"
#include "tests/unit/support/LogCapture.h"
#include "tests/unit/support/NodeRoot.h"
#include "tests/unit/support/PrivateBus.h"

/// What tests that force an order of events see of a monitor.
struct MonProbe {
    /// How many threads wait to enter.
    static unsigned waiting(Mon& mon) {
        const MutexLock lock(mon.mutex_);
        return mon.waiting_;
    }
};

namespace Services::Bluetooth::Linux {

/// What tests that force an order of events reach inside of a device.
struct DeviceProbe {
    static const Ref<Mon>& waitersLock(Device& device) { return device.waitersLock_; }
    static const Ref<Mon>& profilesLock(Device& device) { return device.profilesLock_; }
    static std::size_t waiters(Device& device);
    /// The same for whoever is inside of waitersLock.
    static std::size_t waitersInside(Device& device) NO_THREAD_SAFETY_ANALYSIS { return device.waiters_->items.size(); }
    static Ref<PairingAttempt> attempt(Device& device);
    static bool setPairingState(Device& device, PairingState next) { return device.setPairingState(next); }
    /// Without anything that goes with it.
    static void forceState(Device& device, PairingState state) {
        device.pairingState_ = static_cast<std::uint64_t>(state);
    }
    static void finishAttempt(Device& device, PairingAttempt& attempt, bool changed, PairingAttempt::Result result) {
        device.finishAttempt(attempt, changed, result);
    }
    static void cancelUntilSent(Device& device, const PairingAttempt& attempt) { device.cancelUntilSent(attempt); }
    static std::uint32_t removeDevice(Device& device) { return device.removeDevice(); }
};

}  // namespace Services::Bluetooth::Linux

namespace UnitTest {

using namespace Services::Bluetooth::Linux;
using Level = Interrupt::Level;

/// A request in progress: the function on a thread of its own with an interrupt bound to it, as the node framework
/// serves one.
template <class Result>
class Request {
public:
    template <class Function>
    explicit Request(Function function)
        : thread_([this, function = std::move(function)]() mutable {
              const Interrupt::Bind bind(interrupt_);
              Result result = function();
              {
                  // What the function holds goes before the answer is there, as a request's references do.
                  [[maybe_unused]] const Function gone = std::move(function);
              }
              result_.set_value(std::move(result));
          }),
          future_(result_.get_future()) {}
    ~Request() { thread_.join(); }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    void interrupt(Level level) { interrupt_.raise(level); }
    bool answeredWithin(std::chrono::milliseconds limit = kPatience) {
        return future_.wait_for(limit) == std::future_status::ready;
    }
    /// Ends the test program when there is no answer within the limit.
    Result answer() {
        if (!answeredWithin()) {
            std::fprintf(stderr, "a request is left waiting\n");
            std::abort();
        }
        return future_.get();
    }

private:
    Interrupt interrupt_;
    std::promise<Result> result_;
    std::thread thread_;
    std::future<Result> future_;
};

inline Ref<String> text(std::string_view view) {
    return String::create(view);
}

/// The id of a device's node.
std::uint64_t nodeIdOf(const std::string& path);

/// What CONNECT came to, and the pincode.
using Connected = std::pair<std::int32_t, std::string>;

/// A service on a bus of its own with a scripted BlueZ, its dispatch loop running on a thread of its own.
class World : public ::testing::Test {
protected:
    static constexpr const char* kPath = "/org/bluez/hci0/dev_00_11_22_33_44_55";
    static constexpr const char* kAddress = "00:11:22:33:44:55";
    static constexpr const char* kOtherPath = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF";
    static constexpr const char* kOtherAddress = "AA:BB:CC:DD:EE:FF";
    static constexpr const char* kDeviceInterface = "org.bluez.Device1";
    static constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

    World();
    ~World() override;

    /// Properties of a device in BlueZ.
    void describe(const std::string& path, const std::string& alias, bool paired, std::uint32_t classOfDevice);
    void offer(const std::string& path, std::vector<std::string> uuids);
    /// A device as the registry makes one, without the registry.
    Ref<Device> makeDevice(const std::string& path = kPath, const std::string& address = kAddress);
    /// One that BlueZ describes as unpaired, or paired.
    Ref<Device> makeUnpaired(const std::string& path = kPath, const std::string& address = kAddress);
    Ref<Device> makePaired(const std::string& path = kPath, const std::string& address = kAddress);
    /// An unpaired one in BlueZ that the registry has published.
    Ref<Device> publish(const std::string& path = kPath, const std::string& address = kAddress);

    /// Ends the dispatch loop, stops the node services and drops the service, as the end of the process does.
    void endService();
    /// Returns when everything that BlueZ sent so far was dispatched.
    void settle();
    /// Runs the function on the dispatch thread, after what came before.
    void onDispatchThread(const std::function<void()>& function);
    /// BlueZ's call of the agent, up to and including its effect.
    void displayPincode(const std::string& path, const std::string& pincode);
    void emitChanged(const std::string& path, const std::string& interface, const BusDict& changed);
    /// Whether the agent has a listener for the path.
    bool listened(const std::string& path);

    std::unique_ptr<Request<Connected>> connect(const Ref<Device>& device, std::uint32_t timeoutMs = Sem::kNoLimit);
    std::unique_ptr<Request<std::uint32_t>> awaitPaired(const Ref<Device>& device,
                                                        std::uint32_t timeoutMs = Sem::kNoLimit);
    std::unique_ptr<Request<std::uint32_t>> disconnect(const Ref<Device>& device);
    std::unique_ptr<Request<std::int32_t>> activate(const Ref<Device>& device, std::uint32_t number);
    /// connect() up to BlueZ's getting the call, which it holds back.
    std::unique_ptr<FakePeer::Request> beginPairing(const Ref<Device>& device,
                                                    std::unique_ptr<Request<Connected>>* request);
    bool waitForWaiters(const Ref<Device>& device, std::size_t number);
    bool waitForState(const Ref<Device>& device, PairingState state);
    /// Waits until so many threads stand before the monitor, which somebody is inside of.
    static bool waitForThreadsBefore(const Ref<Mon>& monitor, unsigned number);
    /// Drops the test's reference; true when that was the last one within the limit.
    static bool goesAway(Ref<Device>& device);

    PrivateBus bus_;
    FakePeer bluez_;
    LogCapture log_;
    Ref<Service> service_;
    std::string serviceName_;  ///< its unique name on the bus

    Interrupt dispatchInterrupt_;  ///< the dispatch thread's

private:
    std::atomic<bool> ends_{false};
    std::thread dispatcher_;
};

}  // namespace UnitTest
