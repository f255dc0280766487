#include "tests/unit/devices/World.h"

namespace UnitTest {
namespace {

using State = PairingState;
using Records = std::vector<std::string>;

class Pairing : public World {
protected:
    const std::string path_ = kPath;

    std::size_t pairCalls() const { return bluez_.count(kDeviceInterface, "Pair"); }
    std::size_t cancelCalls() const { return bluez_.count(kDeviceInterface, "CancelPairing"); }
};

// CONNECT

TEST_F(Pairing, IsOneCallOfPairAndZeroWhenBluezAnswers) {
    offer(kPath, {"0000110b-0000-1000-8000-00805f9b34fb"});
    const Ref<Device> device = makeUnpaired();
    bluez_.forgetCalls();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    EXPECT_EQ(pair->call().text(), path_ + " org.bluez.Device1.Pair()");
    EXPECT_EQ(device->getPairingState(), State::Pairing);
    EXPECT_TRUE(listened(kPath));
    pair->reply();
    EXPECT_EQ(request->answer(), Connected(0, ""));
    EXPECT_EQ(device->getPairingState(), State::Paired);
    EXPECT_FALSE(listened(kPath));
    EXPECT_EQ(
        log_.records(),
        (Records{"1 Pair " + path_, "1 Device paired: " + path_, "1 Retrieving profiles for " + path_,
                 "1 Successfully retrieved 1h (1) profiles for " + path_, "1 Pairing succeeded for device " + path_}));
}

TEST_F(Pairing, FailsWhenBluezAnswersWithAnError) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::fails("org.bluez.Error.AuthenticationRejected"));
    EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_FALSE(listened(kPath));
    EXPECT_EQ(log_.records(), (Records{"1 Pair " + path_, "4 Pair reply error: org.bluez.Error.AuthenticationRejected",
                                       "4 Pairing failed for device " + path_}));
}

TEST_F(Pairing, LogsACancelledPairAsSuch) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::fails("org.bluez.Error.AuthenticationCanceled"));
    EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
    EXPECT_EQ(log_.records(),
              (Records{"1 Pair " + path_, "1 Pair canceled: " + path_, "4 Pairing failed for device " + path_}));
}

TEST_F(Pairing, ReturnsThePincodeThatIsToBeTyped) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "004711");
    EXPECT_EQ(request->answer(), Connected(1, "004711"));
    EXPECT_EQ(device->getPairingState(), State::Pincode);
    EXPECT_TRUE(listened(kPath));
    EXPECT_EQ(log_.records(), (Records{"1 Pair " + path_, "1 Pairing pincode 004711 for device " + path_}));
    pair->reply();
    EXPECT_TRUE(waitForState(device, State::Paired));
    settle();
    EXPECT_FALSE(listened(kPath));
}

TEST_F(Pairing, StartsAfreshAfterAFailure) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> first;
    auto pair = beginPairing(device, &first);
    displayPincode(kPath, "1111");
    EXPECT_EQ(first->answer(), Connected(1, "1111"));
    pair->error("org.bluez.Error.AuthenticationFailed");
    ASSERT_TRUE(waitForState(device, State::Unpaired));
    settle();

    std::unique_ptr<Request<Connected>> second;
    pair = beginPairing(device, &second);
    EXPECT_FALSE(second->answeredWithin(std::chrono::milliseconds(50)));  // by what the first one left behind
    displayPincode(kPath, "2222");
    EXPECT_EQ(second->answer(), Connected(1, "2222"));
    pair->reply();
    EXPECT_TRUE(waitForState(device, State::Paired));
}

TEST_F(Pairing, IsRefusedWithoutACallWhenOneIsUnderWay) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> first;
    const auto pair = beginPairing(device, &first);
    EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
    displayPincode(kPath, "1111");
    EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
    EXPECT_EQ(pairCalls(), 1u);
    EXPECT_EQ(first->answer(), Connected(1, "1111"));
    pair->error("org.bluez.Error.Failed");
    EXPECT_TRUE(waitForState(device, State::Unpaired));
}

TEST_F(Pairing, IsRefusedWithoutACallWhenTheDeviceIsPaired) {
    const Ref<Device> device = makePaired();
    EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
    EXPECT_EQ(pairCalls(), 0u);
    EXPECT_EQ(log_.records(), Records{});
}

TEST_F(Pairing, IsRefusedWithoutACallWhileTheDeviceIsUnpairingOrCancelling) {
    const Ref<Device> device = makePaired();
    for (const State state : {State::Unpairing, State::Cancelling}) {
        DeviceProbe::forceState(*device, state);
        EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
    }
    EXPECT_EQ(pairCalls(), 0u);
}

TEST_F(Pairing, FailsAndStaysUnpairedWhenTheCallCannotBeSent) {
    const Ref<Device> device = makeUnpaired();
    bus_.kill();
    ASSERT_TRUE(waitUntil([&] { return !DBus::dbus_connection_get_is_connected(service_->connection()); }));
    EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_FALSE(listened(kPath));
    EXPECT_EQ(log_.records(), Records{"1 Pair " + path_});
}

// Pincodes

TEST_F(Pairing, IgnoresAnEventOfAnotherType) {
    const Ref<Device> device = makeUnpaired();
    onDispatchThread([&] { device->handleEvent({29, {}}); });
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_EQ(log_.records(), Records{"3 Unexpected event 1dh (29) for device " + path_});
}

TEST_F(Pairing, WritesAPincodeThatIsANumberInDecimal) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    onDispatchThread([&] {
        device->handleEvent(
            {AuthenticationAgent::EVENT_DISPLAY_PINCODE, {NodeValue::makeInteger(text("pincode"), 1234)}});
    });
    EXPECT_EQ(request->answer(), Connected(1, "1234"));
    pair->reply();
    EXPECT_TRUE(waitForState(device, State::Paired));
}

TEST_F(Pairing, PassesAnEmptyPincodeOn) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "");
    EXPECT_EQ(request->answer(), Connected(1, ""));
    pair->reply();
    EXPECT_TRUE(waitForState(device, State::Paired));
}

TEST_F(Pairing, EndsTheProcessOnAnEventWithoutPincode) {
    const Ref<Device> device = makeUnpaired();  // which no message has reached: the test's thread is as good as any
    EXPECT_DEATH(device->handleEvent({AuthenticationAgent::EVENT_DISPLAY_PINCODE, {}}), "");
}

TEST_F(Pairing, IsCancelledByASecondPincode) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    const auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));
    displayPincode(kPath, "2222");
    EXPECT_EQ(device->getPairingState(), State::Cancelling);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    EXPECT_EQ(bluez_.calls().back().text(), path_ + " org.bluez.Device1.CancelPairing()");
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(waiting->answer(), ResultCode::kFailure);
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_FALSE(listened(kPath));
    EXPECT_EQ(cancelCalls(), 1u);
    EXPECT_EQ(log_.records(), (Records{"1 Pair " + path_, "1 Pairing pincode 1111 for device " + path_,
                                       "1 Request cancel pairing for " + path_, "1 Pair canceled: " + path_}));
}

TEST_F(Pairing, DoesNotCancelTwiceForAThirdPincode) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    for (const char* pincode : {"1111", "2222", "3333"}) displayPincode(kPath, pincode);
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    EXPECT_EQ(log_.count("3 Got pincode retry, but could not cancel; Pair attempt will fail for" + path_), 1u);
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_TRUE(waitForState(device, State::Unpaired));
    EXPECT_EQ(cancelCalls(), 1u);
}

TEST_F(Pairing, ShowsAPincodeThatComesAfterTheCancel) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto cancel = disconnect(device);
    ASSERT_TRUE(waitForState(device, State::Cancelling));
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    EXPECT_EQ(device->getPairingState(), State::Cancelling);
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
}

TEST_F(Pairing, GivesEachOfTwoDevicesItsOwnPincode) {
    const Ref<Device> one = makeUnpaired();
    const Ref<Device> other = makeUnpaired(kOtherPath, kOtherAddress);
    std::unique_ptr<Request<Connected>> first;
    std::unique_ptr<Request<Connected>> second;
    const auto pairOne = beginPairing(one, &first);
    const auto pairOther = beginPairing(other, &second);
    displayPincode(kOtherPath, "2222");
    displayPincode(kPath, "1111");
    EXPECT_EQ(second->answer(), Connected(1, "2222"));
    EXPECT_EQ(first->answer(), Connected(1, "1111"));
    pairOne->reply();
    pairOther->error("org.bluez.Error.Failed");
    EXPECT_TRUE(waitForState(one, State::Paired));
    EXPECT_TRUE(waitForState(other, State::Unpaired));
}

// WAIT_CONNECTED

TEST_F(Pairing, HasNothingToWaitForOnAnUnpairedDevice) {
    EXPECT_EQ(makeUnpaired()->waitPaired(Sem::kNoLimit), ResultCode::kNothingToWaitFor);
}

TEST_F(Pairing, IsOverAtOnceForWhoeverWaitsForAPairedDevice) {
    EXPECT_EQ(makePaired()->waitPaired(Sem::kNoLimit), ResultCode::kSuccess);
}

TEST_F(Pairing, WakesEveryWaiterWhenItSucceeds) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto one = awaitPaired(device);
    const auto other = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 2));
    pair->reply();
    EXPECT_EQ(one->answer(), ResultCode::kSuccess);
    EXPECT_EQ(other->answer(), ResultCode::kSuccess);
    EXPECT_EQ(request->answer(), Connected(0, ""));
    EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
}

TEST_F(Pairing, WakesWaitersOnlyOnceTheProfilesWereRead) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));
    bluez_.on(kProperties, "Get", bluez_.holds());
    pair->reply();
    const auto get = bluez_.takeHeld();
    ASSERT_TRUE(get);
    EXPECT_EQ(get->call().text(), path_ + " org.freedesktop.DBus.Properties.Get(\"org.bluez.Device1\", \"UUIDs\")");
    EXPECT_EQ(device->getPairingState(), State::Paired);
    EXPECT_FALSE(waiting->answeredWithin(std::chrono::milliseconds(50)));
    EXPECT_FALSE(request->answeredWithin(std::chrono::milliseconds(0)));
    EXPECT_TRUE(listened(kPath));
    get->error("org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(waiting->answer(), ResultCode::kSuccess);
    EXPECT_EQ(request->answer(), Connected(0, ""));
    EXPECT_FALSE(listened(kPath));
}

TEST_F(Pairing, WakesEveryWaiterWhenItFails) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto one = awaitPaired(device);
    const auto other = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 2));
    pair->error("org.bluez.Error.AuthenticationFailed");
    EXPECT_EQ(one->answer(), ResultCode::kFailure);
    EXPECT_EQ(other->answer(), ResultCode::kFailure);
    EXPECT_EQ(request->answer(), Connected(-1, ""));
}

// DISCONNECT

TEST_F(Pairing, IsCancelledByDisconnectWhichWaitsForItsEnd) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto cancel = disconnect(device);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    EXPECT_EQ(device->getPairingState(), State::Cancelling);
    EXPECT_FALSE(cancel->answeredWithin(std::chrono::milliseconds(50)));
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
    EXPECT_EQ(request->answer(), Connected(-1, ""));
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_EQ(log_.records(), (Records{"1 Pair " + path_, "1 Request cancel pairing for " + path_,
                                       "1 Pair canceled: " + path_, "4 Pairing failed for device " + path_}));
}

TEST_F(Pairing, IsCancelledAfterThePincodeAsWell) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    const auto cancel = disconnect(device);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
}

TEST_F(Pairing, IsCancelledOnlyOnce) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto cancel = disconnect(device);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    EXPECT_EQ(disconnect(device)->answer(), ResultCode::kFailure);
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
    EXPECT_EQ(cancelCalls(), 1u);
}

TEST_F(Pairing, CannotBeCancelledOnAnUnpairedDevice) {
    EXPECT_EQ(makeUnpaired()->unpair(), ResultCode::kFailure);
    EXPECT_EQ(cancelCalls(), 0u);
    EXPECT_EQ(log_.records(), Records{});
}

TEST_F(Pairing, OfAPairedDeviceIsNotUndoneButTheStateIsUnpairing) {
    const Ref<Device> device = makePaired();
    bluez_.forgetCalls();
    EXPECT_EQ(device->unpair(), ResultCode::kFailure);
    EXPECT_EQ(device->getPairingState(), State::Unpairing);
    EXPECT_EQ(device->unpair(), ResultCode::kFailure);
    EXPECT_EQ(device->getPairingState(), State::Unpairing);
    settle();
    EXPECT_EQ(bluez_.calls().size(), 0u);
    EXPECT_EQ(log_.records(), Records{});
}

// The rest of the table

TEST_F(Pairing, ChangesItsStateByTheTableAlone) {
    const std::vector<std::pair<State, std::vector<State>>> allowed{
        {State::Unpaired, {State::Pairing, State::Pincode, State::Unpairing, State::Cancelling}},
        {State::Pairing, {State::Unpaired}},
        {State::Pincode, {State::Pairing}},
        {State::Cancelling, {State::Pairing, State::Pincode}},
        {State::Paired, {State::Pairing, State::Pincode, State::Unpairing}},
    };
    const std::vector<State> all{State::Unpaired,   State::Pairing, State::Pincode,
                                 State::Cancelling, State::Paired,  State::Unpairing};
    const Ref<Device> device = makeUnpaired();
    for (const auto& [next, from] : allowed) {
        for (const State state : all) {
            DeviceProbe::forceState(*device, state);
            const bool changes = std::find(from.begin(), from.end(), state) != from.end();
            EXPECT_EQ(DeviceProbe::setPairingState(*device, next), changes)
                << static_cast<int>(state) << " to " << static_cast<int>(next);
            EXPECT_EQ(device->getPairingState(), changes ? next : state);
        }
    }
    for (const State state : all) {
        DeviceProbe::forceState(*device, state);
        EXPECT_FALSE(DeviceProbe::setPairingState(*device, State::Unpairing));
        EXPECT_EQ(device->getPairingState(), state == State::Paired ? State::Unpairing : state);
        DeviceProbe::forceState(*device, state);
        EXPECT_TRUE(DeviceProbe::setPairingState(*device, static_cast<State>(6)));
        EXPECT_EQ(device->getPairingState(), state);
    }
    EXPECT_TRUE(DeviceProbe::setPairingState(*device, State::Unpaired));
    EXPECT_FALSE(listened(kPath));
}

TEST_F(Pairing, RemovesTheDeviceFromItsAdapter) {
    const Ref<Device> device = makeUnpaired();
    bluez_.setProperty(kPath, kDeviceInterface, "Adapter", ObjectPath{"/org/bluez/hci0"});
    bluez_.on("org.bluez.Adapter1", "RemoveDevice", FakePeer::answers());
    DeviceProbe::forceState(*device, State::Unpairing);
    EXPECT_EQ(DeviceProbe::removeDevice(*device), ResultCode::kSuccess);
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    EXPECT_EQ(bluez_.calls().back().text(), "/org/bluez/hci0 org.bluez.Adapter1.RemoveDevice(" + path_ + ")");
    EXPECT_EQ(log_.records(), Records{"1 Unpaired/removed device " + path_});
}

TEST_F(Pairing, LogsARemovalThatBluezRefuses) {
    const Ref<Device> device = makeUnpaired();
    bluez_.setProperty(kPath, kDeviceInterface, "Adapter", ObjectPath{"/org/bluez/hci0"});
    bluez_.on("org.bluez.Adapter1", "RemoveDevice", FakePeer::fails("org.bluez.Error.Failed", "no way"));
    DeviceProbe::forceState(*device, State::Unpairing);
    EXPECT_EQ(DeviceProbe::removeDevice(*device), ResultCode::kFailure);
    EXPECT_EQ(device->getPairingState(), State::Unpairing);
    EXPECT_EQ(log_.records(), Records{"4 Failed to unpair/remove device " + path_ + ": no way"});
}

TEST_F(Pairing, RemovesNothingWhenTheAdapterCannotBeRead) {
    const Ref<Device> device = makeUnpaired();
    EXPECT_EQ(DeviceProbe::removeDevice(*device), ResultCode::kFailure);
    bluez_.setProperty(kPath, kDeviceInterface, "Adapter", "/org/bluez/hci0");
    EXPECT_EQ(DeviceProbe::removeDevice(*device), ResultCode::kFailure);
    EXPECT_EQ(bluez_.count("org.bluez.Adapter1", "RemoveDevice"), 0u);
    EXPECT_EQ(log_.records(), Records{});
}

}  // namespace
}  // namespace UnitTest
