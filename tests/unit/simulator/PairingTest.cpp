#include "tests/unit/simulator/SimulatorTest.h"

namespace SimulatorTests {

namespace {

using namespace Simulator;

class Pairing : public SimulatorTest {
protected:
    std::shared_ptr<const Outcome> pair(const std::string& device) { return client().start(device, kDevice1, "Pair"); }
    bool isShown(std::size_t count = 1) {
        return client().waitFor([&] { return client().agentCalls.size() >= count; });
    }
    bool isOver(const std::shared_ptr<const Outcome>& pairing) {
        return client().waitFor([&] { return pairing->isAnswered; });
    }
    std::string shownPinCode() { return client().agentCalls.back().arguments.at(1).text(); }
    void type(const std::string& device, const std::string& pinCode) {
        client().control("TypePinCode", {path(device), text(pinCode)});
    }
    bool isPaired(const std::string& device) {
        const auto paired = client().property(device, kDevice1, "Paired");
        return paired && paired->isTrue();
    }
};

TEST_F(Pairing, AKeyboardIsPairedOnceItsPincodeWasTyped) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    EXPECT_EQ(client().agentCalls[0].member, "DisplayPinCode");
    EXPECT_EQ(client().agentCalls[0].arguments.at(0), path(keyboard));
    EXPECT_EQ(shownPinCode().size(), 6U);
    EXPECT_EQ(shownPinCode().find_first_not_of("0123456789"), std::string::npos);
    EXPECT_EQ(client().control("PinCode", {path(keyboard)}).at(0).text(), shownPinCode());
    client().catchUp();
    EXPECT_FALSE(pairing->isAnswered);
    type(keyboard, shownPinCode());
    ASSERT_TRUE(isOver(pairing));
    EXPECT_TRUE(pairing->isOk());
    EXPECT_TRUE(isPaired(keyboard));
}

TEST_F(Pairing, TellsTheBondAndTheServicesBeforeTheAnswer) {
    const auto headset = device("headset");
    EXPECT_TRUE(client().call(headset, kDevice1, "Pair").isOk());
    const auto told = client().told(headset);
    ASSERT_EQ(told.size(), 4U);
    EXPECT_TRUE(told[0].starts_with("InterfacesAdded"));
    EXPECT_EQ(told[1], "PropertiesChanged(\"org.bluez.Device1\", {\"Bonded\": b:true, \"Connected\": b:true}, [])");
    EXPECT_EQ(told[2], "InterfacesAdded(\"" + headset + "\", {\"org.bluez.MediaControl1\": {\"Connected\": b:false}})");
    EXPECT_EQ(told[3],
              "PropertiesChanged(\"org.bluez.Device1\", {\"ServicesResolved\": b:true, \"Paired\": b:true}, [])");
}

TEST_F(Pairing, AWrongPincodeFailsTheAuthentication) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    type(keyboard, "wrong");
    ASSERT_TRUE(isOver(pairing));
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.AuthenticationFailed");
    EXPECT_EQ(pairing->errorText, "Authentication Failed");
    EXPECT_FALSE(isPaired(keyboard));
    // The device is as it was, and can be paired.
    const auto second = pair(keyboard);
    ASSERT_TRUE(isShown(2));
    type(keyboard, shownPinCode());
    ASSERT_TRUE(isOver(second));
    EXPECT_TRUE(second->isOk());
}

TEST_F(Pairing, WithRetriesAWrongPincodeBringsTwoMoreAndThenAQuestion) {
    tune("retry-after", 5);
    tune("hasty-within", 0);
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    for (std::size_t attempt = 1; attempt <= 3; ++attempt) {
        ASSERT_TRUE(isShown(attempt));
        EXPECT_EQ(client().agentCalls.back().member, "DisplayPinCode");
        type(keyboard, "wrong");
    }
    ASSERT_TRUE(isShown(4));
    EXPECT_EQ(client().agentCalls.back().member, "RequestPinCode");
    sd_bus_reply_method_return(client().agentCalls.back().message.get(), "s", "4711");
    EXPECT_TRUE(client().waitFor([&] { return client().control("PinCode", {path(keyboard)}).at(0).text() == "4711"; }));
    type(keyboard, "wrong");
    ASSERT_TRUE(isOver(pairing));
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.AuthenticationFailed");
}

TEST_F(Pairing, WithRetriesTheSecondPincodePairs) {
    tune("retry-after", 5);
    tune("hasty-within", 0);
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    type(keyboard, "wrong");
    ASSERT_TRUE(isShown(2));
    type(keyboard, shownPinCode());
    ASSERT_TRUE(isOver(pairing));
    EXPECT_TRUE(pairing->isOk());
}

TEST_F(Pairing, WithRetriesAWrongPincodeThatCameTooSoonBringsTheQuestionOnly) {
    tune("retry-after", 5);
    tune("hasty-within", 60000);
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    type(keyboard, "wrong");
    ASSERT_TRUE(isShown(2));
    EXPECT_EQ(client().agentCalls.back().member, "RequestPinCode");
    EXPECT_FALSE(pairing->isAnswered);
    client().call(keyboard, kDevice1, "CancelPairing");
    ASSERT_TRUE(isOver(pairing));
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.AuthenticationCanceled");
}

TEST_F(Pairing, ADiscoveryIsStartedWhenThePairingHasEnded) {
    Client other;
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    const auto mine = client().start(kHci0, kAdapter1, "StartDiscovery");
    const auto others = other.start(kHci0, kAdapter1, "StartDiscovery");
    other.catchUp();
    client().catchUp();
    EXPECT_FALSE(mine->isAnswered);
    EXPECT_FALSE(others->isAnswered);
    EXPECT_EQ(client().call(kHci0, kAdapter1, "StopDiscovery").errorName, "org.bluez.Error.InProgress");
    EXPECT_FALSE(client().property(kHci0, kAdapter1, "Discovering")->isTrue());
    // Another controller's discovery has nothing to do with it.
    EXPECT_TRUE(client().call(kHci1, kAdapter1, "StartDiscovery").isOk());
    type(keyboard, shownPinCode());
    ASSERT_TRUE(isOver(pairing));
    EXPECT_TRUE(mine->isOk());
    EXPECT_TRUE(other.waitFor([&] { return others->isOk(); }));
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Discovering")->isTrue());
}

TEST_F(Pairing, ADiscoveryThatWaitsIsAnsweredWhenTheDeviceGoes) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    const auto discovery = client().start(kHci0, kAdapter1, "StartDiscovery");
    EXPECT_TRUE(client().call(kHci0, kAdapter1, "RemoveDevice", {path(keyboard)}).isOk());
    ASSERT_TRUE(client().waitFor([&] { return discovery->isAnswered; }));
    EXPECT_TRUE(discovery->isOk());
}

TEST_F(Pairing, ADiscoveryThatWaitsFailsWhenThePowerGoes) {
    client().registerAgent();
    const auto pairing = pair(device("keyboard"));
    ASSERT_TRUE(isShown());
    const auto discovery = client().start(kHci0, kAdapter1, "StartDiscovery");
    client().control("SetPowered", {path(kHci0), Value::boolean(false)});
    ASSERT_TRUE(client().waitFor([&] { return discovery->isAnswered; }));
    EXPECT_EQ(discovery->errorName, "org.bluez.Error.NotReady");
}

TEST_F(Pairing, WhatADeviceOffersCanBeSaidWhenItIsPutOnTheAir) {
    const std::string serialPort = "00001101-0000-1000-8000-00805f9b34fb";
    const std::string deviceId = "00001200-0000-1000-8000-00805f9b34fb";
    const auto services = Value::strings({serialPort, deviceId});
    const auto headset = device("headset", {{"UUIDs", services}});
    EXPECT_TRUE(client().call(headset, kDevice1, "Pair").isOk());
    EXPECT_EQ(client().property(headset, kDevice1, "UUIDs"), services);
    EXPECT_TRUE(client().call(headset, kDevice1, "ConnectProfile", {text(serialPort)}).isOk());
    // Listed, but nothing in bluetoothd connects it.
    EXPECT_EQ(client().call(headset, kDevice1, "ConnectProfile", {text(deviceId)}).errorName,
              "org.bluez.Error.NotAvailable");
}

TEST_F(Pairing, PincodesTypeThemselvesWhereTheScenarioSaysSo) {
    tune("type-after", 10);
    client().registerAgent();
    const auto pairing = pair(device("keyboard"));
    ASSERT_TRUE(isOver(pairing));
    EXPECT_TRUE(pairing->isOk());
}

TEST_F(Pairing, TheAgentOfTheCallerIsUsedElseTheDefaultAgent) {
    Client other;
    other.registerAgent();
    const auto first = device("keyboard");
    const auto firstPairing = pair(first);
    ASSERT_TRUE(other.waitFor([&] { return other.agentCalls.size() == 1; }));
    EXPECT_TRUE(client().agentCalls.empty());
    client().registerAgent();
    const auto secondPairing = pair(device("keyboard"));
    ASSERT_TRUE(isShown());
    other.catchUp();
    EXPECT_EQ(other.agentCalls.size(), 1U);
}

TEST_F(Pairing, WithoutAnyAgentAPincodeCannotBeShown) {
    EXPECT_EQ(client().call(device("keyboard"), kDevice1, "Pair").errorName, "org.bluez.Error.AuthenticationFailed");
    EXPECT_TRUE(client().call(device("headset"), kDevice1, "Pair").isOk());
}

TEST_F(Pairing, AnAgentThatAnswersWithAnErrorChangesNothing) {
    client().isAgentObliging = false;
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    sd_bus_reply_method_errorf(client().agentCalls[0].message.get(), "org.bluez.Error.Rejected", "%s", "no");
    const auto typed = [&] {
        return client().call(kControlPath, kControl1, "TypePinCode", {path(keyboard), text(shownPinCode())}).isOk();
    };
    ASSERT_TRUE(client().waitFor(typed));
    ASSERT_TRUE(isOver(pairing));
    EXPECT_TRUE(pairing->isOk());
}

TEST_F(Pairing, AnAgentThatDoesNotAnswerInTimeIsToldAndTheTypingGoesOn) {
    tune("agent-timeout", 30);
    client().isAgentObliging = false;
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown(2));
    EXPECT_EQ(client().agentCalls[1].member, "Cancel");
    EXPECT_GT(sd_bus_message_get_expect_reply(client().agentCalls[0].message.get()), 0);
    EXPECT_EQ(sd_bus_message_get_expect_reply(client().agentCalls[1].message.get()), 0);
    type(keyboard, client().agentCalls[0].arguments.at(1).text());
    ASSERT_TRUE(isOver(pairing));
    EXPECT_TRUE(pairing->isOk());
}

TEST_F(Pairing, ASecondPairIsRefusedWhileOneIsUnderWayAndWhenPaired) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    Client other;
    EXPECT_EQ(other.call(keyboard, kDevice1, "Pair").errorName, "org.bluez.Error.InProgress");
    EXPECT_EQ(client().call(keyboard, kDevice1, "Pair").errorName, "org.bluez.Error.InProgress");
    type(keyboard, shownPinCode());
    ASSERT_TRUE(isOver(pairing));
    const auto again = client().call(keyboard, kDevice1, "Pair");
    EXPECT_EQ(again.errorName, "org.bluez.Error.AlreadyExists");
    EXPECT_EQ(again.errorText, "Already Exists");
}

TEST_F(Pairing, ADeviceThatWasPairedFromTheStartCannotBePaired) {
    const auto headset = device("headset", {{"Paired", Value::boolean(true)}});
    EXPECT_EQ(client().call(headset, kDevice1, "Pair").errorName, "org.bluez.Error.AlreadyExists");
}

TEST_F(Pairing, CancelPairingAnswersPairFirst) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    const auto cancel = client().start(keyboard, kDevice1, "CancelPairing");
    ASSERT_TRUE(isOver(pairing));
    EXPECT_FALSE(cancel->isAnswered);
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(pairing->errorText, "Authentication Canceled");
    ASSERT_TRUE(isOver(cancel));
    EXPECT_TRUE(cancel->isOk());
    EXPECT_EQ(client().agentCalls.size(), 1U);  // an agent that has answered is not bothered any more
}

TEST_F(Pairing, CancelPairingTellsAnAgentThatIsStillBeingAsked) {
    client().isAgentObliging = false;
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    EXPECT_TRUE(client().call(keyboard, kDevice1, "CancelPairing").isOk());
    ASSERT_TRUE(isShown(2));
    EXPECT_EQ(client().agentCalls[1].member, "Cancel");
}

TEST_F(Pairing, CancelPairingWithoutOneDropsTheConnectionAndKeepsThePairing) {
    const auto headset = device("headset");
    EXPECT_EQ(client().call(headset, kDevice1, "CancelPairing").errorName, "org.bluez.Error.DoesNotExist");
    EXPECT_TRUE(client().call(headset, kDevice1, "Pair").isOk());
    EXPECT_TRUE(client().property(headset, kDevice1, "Connected")->isTrue());
    const auto none = client().call(headset, kDevice1, "CancelPairing");
    EXPECT_EQ(none.errorName, "org.bluez.Error.DoesNotExist");
    EXPECT_EQ(none.errorText, "Does Not Exist");
    EXPECT_FALSE(client().property(headset, kDevice1, "Connected")->isTrue());
    EXPECT_TRUE(isPaired(headset));
}

TEST_F(Pairing, EndsWhenItsCallerLeavesTheBus) {
    auto other = std::make_unique<Client>();
    other->registerAgent();
    const auto keyboard = device("keyboard");
    other->start(keyboard, kDevice1, "Pair");
    ASSERT_TRUE(other->waitFor([&] { return other->agentCalls.size() == 1; }));
    other.reset();
    ASSERT_TRUE(client().waitFor([&] { return client().control("Agents").at(0).elements().empty(); }));
    client().registerAgent();
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    type(keyboard, shownPinCode());
    ASSERT_TRUE(isOver(pairing));
    EXPECT_TRUE(pairing->isOk());
}

TEST_F(Pairing, RemovingTheDeviceEndsItAsAFailedConnection) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    EXPECT_TRUE(client().call(kHci0, kAdapter1, "RemoveDevice", {path(keyboard)}).isOk());
    ASSERT_TRUE(isOver(pairing));
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.ConnectionAttemptFailed");
    EXPECT_EQ(pairing->errorText, "Page Timeout");
    EXPECT_TRUE(client().told(keyboard).back().starts_with("InterfacesRemoved"));
}

TEST_F(Pairing, RemovingTheAdapterEndsIt) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    client().control("RemoveAdapter", {path(kHci0)});
    ASSERT_TRUE(isOver(pairing));
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.ConnectionAttemptFailed");
    const auto removedDevice = client().told(keyboard).back();
    EXPECT_EQ(client().signals.back().arguments.at(0).text(), kHci0);
    EXPECT_TRUE(removedDevice.starts_with("InterfacesRemoved"));
}

TEST_F(Pairing, NeedsPower) {
    const auto headset = device("headset");
    client().control("SetPowered", {path(kHci0), Value::boolean(false)});
    EXPECT_EQ(client().call(headset, kDevice1, "Pair").errorName, "org.bluez.Error.AuthenticationFailed");
    EXPECT_EQ(client().call(headset, kDevice1, "Connect").errorName, "org.bluez.Error.NotReady");
    EXPECT_EQ(client().call(headset, kDevice1, "ConnectProfile", {text("x")}).errorName, "org.bluez.Error.NotReady");
}

TEST_F(Pairing, LosingThePowerEndsIt) {
    client().registerAgent();
    const auto keyboard = device("keyboard");
    const auto pairing = pair(keyboard);
    ASSERT_TRUE(isShown());
    client().control("SetPowered", {path(kHci0), Value::boolean(false)});
    ASSERT_TRUE(isOver(pairing));
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.AuthenticationFailed");
    EXPECT_FALSE(isPaired(keyboard));
}

TEST_F(Pairing, ADeviceThatAnInquiryFoundIsForgottenWhenItsPairingFails) {
    const auto phone = client()
                           .control("PutInRange", {path(kHci0), text("00:00:00:00:02:01"), text("phone"),
                                                   Value::uint32(0), noProperties()})
                           .at(0)
                           .text();
    EXPECT_TRUE(client().call(kHci0, kAdapter1, "StartDiscovery").isOk());
    ASSERT_TRUE(client().waitFor([&] { return !client().told(phone).empty(); }));
    EXPECT_TRUE(client().call(kHci0, kAdapter1, "StopDiscovery").isOk());
    EXPECT_EQ(client().call(phone, kDevice1, "Pair").errorName, "org.bluez.Error.AuthenticationRejected");
    EXPECT_TRUE(client().waitFor([&] { return client().told(phone).back().starts_with("InterfacesRemoved"); }));
}

TEST_F(Pairing, TypingWhereNothingIsAskedIsAMistake) {
    const auto keyboard = device("keyboard");
    const auto refused = client().call(kControlPath, kControl1, "TypePinCode", {path(keyboard), text("123456")});
    EXPECT_EQ(refused.errorName, "org.freedesktop.DBus.Error.InvalidArgs");
}

}  // namespace

}  // namespace SimulatorTests
