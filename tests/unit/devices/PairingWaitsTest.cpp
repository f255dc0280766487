#include "tests/unit/devices/World.h"

// In place of libdbus's function, by the linker: memory that is short is nothing that a test could bring about.
extern "C" {
dbus_bool_t __real_dbus_connection_send(::DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial);
dbus_bool_t __wrap_dbus_connection_send(::DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial);
}

namespace UnitTest {
namespace {

/// How many calls of CancelPairing fail from now on; -1: all of them.
std::atomic<int> failingCancels{0};

bool failsToSend(DBusMessage* message) {
    if (!::dbus_message_is_method_call(message, "org.bluez.Device1", "CancelPairing")) return false;
    int left = failingCancels;
    while (left > 0 && !failingCancels.compare_exchange_weak(left, left - 1)) continue;
    return left != 0;
}

}  // namespace
}  // namespace UnitTest

dbus_bool_t __wrap_dbus_connection_send(::DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial) {
    return UnitTest::failsToSend(message) ? FALSE : __real_dbus_connection_send(connection, message, serial);
}

// What ends a wait other than the answer it waits for, and how soon.

namespace UnitTest {
namespace {

using State = PairingState;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

class PairingWaits : public World {
protected:
    const std::string path_ = kPath;

    /// How long the call takes, in milliseconds.
    template <class Function>
    static std::int64_t duration(Function function) {
        const auto begin = Clock::now();
        function();
        return std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count();
    }

    ~PairingWaits() override { failCancels(0); }

    /// Waits until the connection has noticed that the bus is dead.
    bool waitForLoss() const {
        return waitUntil([this] { return !DBus::dbus_connection_get_is_connected(service_->connection()); });
    }

    /// So many calls of CancelPairing cannot be sent from now on; -1: none can.
    static void failCancels(int number) { failingCancels = number; }

    /// "At once" on a loaded machine and under sanitizers; what would end the waits otherwise takes 25 s or for ever.
    static constexpr std::int64_t kAtOnceMs = 5000;
};

TEST_F(PairingWaits, ConnectEndsOnTimeOnAQuietBus) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::silent());
    Connected outcome;
    const std::int64_t ms = duration([&] { outcome = connect(device, 300)->answer(); });
    EXPECT_EQ(outcome, Connected(-1, ""));
    EXPECT_GE(ms, 300);
    EXPECT_LT(ms, 300 + kAtOnceMs);
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_FALSE(listened(kPath));
    EXPECT_EQ(log_.count("3 Did not receive pair reply for " + path_) +
                  log_.count("4 Pair reply error: org.freedesktop.DBus.Error.NoReply"),
              1u);
}

TEST_F(PairingWaits, ConnectWithALongTimeOutIsNotEndedByAShortOne) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    const auto request = connect(device, 60000);
    const auto pair = bluez_.takeHeld();
    ASSERT_TRUE(pair);
    EXPECT_FALSE(request->answeredWithin(milliseconds(100)));
    pair->reply();
    EXPECT_EQ(request->answer(), Connected(0, ""));
}

TEST_F(PairingWaits, ThePairsTimeOutWakesWaitersThoughConnectHasReturned) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::silent());
    const auto request = connect(device, 2000);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "Pair"));
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    EXPECT_EQ(awaitPaired(device)->answer(), ResultCode::kFailure);
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
}

TEST_F(PairingWaits, WaitConnectedEndsOnTime) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    std::uint32_t result = 0;
    const std::int64_t ms = duration([&] { result = device->waitPaired(200); });
    EXPECT_EQ(result, ResultCode::kFailure);
    EXPECT_GE(ms, 200);
    EXPECT_LT(ms, 200 + kAtOnceMs);
    EXPECT_LT(duration([&] { result = device->waitPaired(0); }), kAtOnceMs);
    EXPECT_EQ(result, ResultCode::kFailure);
    EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
    pair->reply();
    EXPECT_EQ(request->answer(), Connected(0, ""));
}

TEST_F(PairingWaits, WaitConnectedWaitsForItsTimeOutWhileTheDeviceIsUnpairing) {
    const Ref<Device> device = makePaired();
    EXPECT_EQ(device->unpair(), ResultCode::kFailure);
    std::uint32_t result = 0;
    EXPECT_GE(duration([&] { result = device->waitPaired(200); }), 200);
    EXPECT_EQ(result, ResultCode::kFailure);
}

TEST_F(PairingWaits, AHangUpEndsConnectAndThePairingGoesOn) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    EXPECT_LT(duration([&] {
                  request->interrupt(Level::HangUp);
                  EXPECT_EQ(request->answer(), Connected(-1, ""));
              }),
              kAtOnceMs);
    EXPECT_EQ(device->getPairingState(), State::Pairing);
    EXPECT_EQ(log_.count("4 Pairing failed for device " + path_), 0u);
    displayPincode(kPath, "1111");
    EXPECT_EQ(device->getPairingState(), State::Pincode);
    const auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));
    pair->reply();
    EXPECT_EQ(waiting->answer(), ResultCode::kSuccess);
    EXPECT_EQ(bluez_.count(kDeviceInterface, "CancelPairing"), 0u);
}

TEST_F(PairingWaits, AHangUpEndsWaitConnectedAndFreesItsPlace) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto leaves = awaitPaired(device);
    const auto stays = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 2));
    leaves->interrupt(Level::HangUp);
    EXPECT_EQ(leaves->answer(), ResultCode::kFailure);
    EXPECT_EQ(DeviceProbe::waiters(*device), 1u);
    pair->reply();
    EXPECT_EQ(stays->answer(), ResultCode::kSuccess);
    EXPECT_EQ(request->answer(), Connected(0, ""));
}

TEST_F(PairingWaits, AHangUpEndsDisconnectAndTheCancelGoesOn) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto cancel = disconnect(device);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    cancel->interrupt(Level::HangUp);
    EXPECT_EQ(cancel->answer(), ResultCode::kFailure);
    EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
    EXPECT_EQ(device->getPairingState(), State::Cancelling);
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(request->answer(), Connected(-1, ""));
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
}

TEST_F(PairingWaits, ACallThatNobodyHearsIsCarriedOutWithoutWaiting) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    const auto unheard = [&](auto operation) {
        return std::make_unique<Request<bool>>([&device, operation] {
            Interrupt::current()->raise(Level::Unheard);
            operation(*device);
            return true;
        });
    };
    EXPECT_TRUE(unheard([](Device& d) { d.pair(Sem::kNoLimit); })->answer());
    const auto pair = bluez_.takeHeld();
    ASSERT_TRUE(pair);
    EXPECT_TRUE(unheard([](Device& d) { d.waitPaired(Sem::kNoLimit); })->answer());
    EXPECT_TRUE(unheard([](Device& d) { d.unpair(); })->answer());
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_TRUE(waitForState(device, State::Unpaired));
}

TEST_F(PairingWaits, TheEndOfTheServiceEndsAllOfThem) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    std::vector<std::unique_ptr<Request<std::uint32_t>>> waiting;
    for (int waiter = 0; waiter < 8; ++waiter) waiting.push_back(awaitPaired(device));
    waiting.push_back(disconnect(device));
    ASSERT_TRUE(waitForWaiters(device, 9));
    EXPECT_LT(duration([&] {
                  request->interrupt(Level::End);
                  for (const auto& waiter : waiting) waiter->interrupt(Level::End);
                  EXPECT_EQ(request->answer(), Connected(-1, ""));
                  for (const auto& waiter : waiting) EXPECT_EQ(waiter->answer(), ResultCode::kFailure);
              }),
              kAtOnceMs);
    EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
}

TEST_F(PairingWaits, ALostBusEndsAllOfThem) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    std::vector<std::unique_ptr<Request<std::uint32_t>>> waiting;
    for (int waiter = 0; waiter < 4; ++waiter) waiting.push_back(awaitPaired(device));
    const auto cancel = disconnect(device);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    ASSERT_TRUE(waitForWaiters(device, 5));
    EXPECT_LT(duration([&] {
                  bus_.kill();
                  ASSERT_TRUE(waitForLoss());
                  DBus::dbus_connection_close(service_->connection());
                  EXPECT_EQ(request->answer(), Connected(-1, ""));
                  for (const auto& waiter : waiting) EXPECT_EQ(waiter->answer(), ResultCode::kFailure);
                  EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
              }),
              kAtOnceMs);
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_FALSE(listened(kPath));
}

TEST_F(PairingWaits, ACancelThatCannotBeSentIsTriedAgain) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    failCancels(3);
    std::unique_ptr<Request<std::uint32_t>> cancel;
    EXPECT_GE(duration([&] {
                  cancel = disconnect(device);
                  EXPECT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
              }),
              300);  // three pauses of 100 ms
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
    EXPECT_EQ(request->answer(), Connected(-1, ""));
    EXPECT_EQ(bluez_.count(kDeviceInterface, "CancelPairing"), 1u);
    EXPECT_EQ(log_.count("3 Request cancel pairing failed for " + path_), 3u);
    EXPECT_EQ(log_.count("1 Request cancel pairing for " + path_), 1u);
}

TEST_F(PairingWaits, ASecondPincodesCancelIsTriedAgain) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    failCancels(2);
    displayPincode(kPath, "2222");
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    EXPECT_EQ(log_.count("3 Request cancel pairing failed for " + path_), 2u);
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_TRUE(waitForState(device, State::Unpaired));
}

TEST_F(PairingWaits, AHangUpEndsTheTriesToCancel) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    failCancels(-1);
    const auto cancel = disconnect(device);
    ASSERT_TRUE(log_.waitFor("3 Request cancel pairing failed for " + path_));
    EXPECT_FALSE(cancel->answeredWithin(milliseconds(50)));
    cancel->interrupt(Level::HangUp);
    EXPECT_EQ(cancel->answer(), ResultCode::kFailure);
    EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
    pair->error("org.bluez.Error.Failed");
    EXPECT_EQ(request->answer(), Connected(-1, ""));
}

TEST_F(PairingWaits, TheEndOfTheServiceEndsTheDispatchThreadsTriesToCancel) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    failCancels(-1);
    Request<bool> second([&] {
        displayPincode(kPath, "2222");  // returns when the dispatch thread does
        return true;
    });
    EXPECT_TRUE(log_.waitFor("3 Request cancel pairing failed for " + path_));
    EXPECT_FALSE(second.answeredWithin(milliseconds(50)));
    dispatchInterrupt_.raise(Level::End);
    EXPECT_TRUE(second.answer());
    pair->error("org.bluez.Error.Failed");
    EXPECT_TRUE(waitForState(device, State::Unpaired));
}

TEST_F(PairingWaits, TheLossOfTheBusEndsTheTriesToCancel) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    // The cancel's try comes after the loss, while the state still waits for BlueZ.
    const Ref<PairingAttempt> attempt = DeviceProbe::attempt(*device);
    bus_.kill();
    ASSERT_TRUE(waitForLoss());
    EXPECT_LT(duration([&] { DeviceProbe::cancelUntilSent(*device, *attempt); }), kAtOnceMs);
    EXPECT_EQ(log_.count("3 Request cancel pairing failed for " + path_), 1u);
    DBus::dbus_connection_close(service_->connection());
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
}

TEST_F(PairingWaits, ClosingTheConnectionAnswersWhoWaits) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));
    endService();
    EXPECT_EQ(request->answer(), Connected(-1, ""));
    EXPECT_EQ(waiting->answer(), ResultCode::kFailure);
    EXPECT_EQ(device->waitPaired(Sem::kNoLimit), ResultCode::kFailure);  // nothing will ever answer that
}

}  // namespace
}  // namespace UnitTest
