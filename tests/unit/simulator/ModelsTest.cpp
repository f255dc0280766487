#include <algorithm>
#include <set>

#include "tests/unit/simulator/SimulatorTest.h"

namespace SimulatorTests {

namespace {

using namespace Simulator;

class Models : public SimulatorTest {
protected:
    Outcome pair(const std::string& device) { return client().call(device, kDevice1, "Pair"); }
    Outcome connectProfile(const std::string& device, const std::string& uuid) {
        return client().call(device, kDevice1, "ConnectProfile", {text(uuid)});
    }
};

constexpr const char* kAudioSink = "0000110b-0000-1000-8000-00805f9b34fb";
constexpr const char* kSerialPort = "00001101-0000-1000-8000-00805f9b34fb";

TEST_F(Models, HaveNamesOfTheirOwnAndASummary) {
    std::set<std::string> names;
    for (const auto& model : models()) {
        EXPECT_TRUE(names.insert(model.name).second) << model.name;
        EXPECT_FALSE(model.summary.empty()) << model.name;
    }
    EXPECT_EQ(client().control("Models").at(0).elements().size(), names.size());
}

TEST_F(Models, HeadsetJustPairs) {
    const auto headset = device("headset");
    EXPECT_TRUE(pair(headset).isOk());
    const auto uuids = client().property(headset, kDevice1, "UUIDs");
    ASSERT_TRUE(uuids);
    EXPECT_EQ(uuids->elements().size(), 4U);
}

TEST_F(Models, PhoneRejectsThePairing) {
    const auto outcome = pair(device("phone"));
    EXPECT_EQ(outcome.errorName, "org.bluez.Error.AuthenticationRejected");
    EXPECT_EQ(outcome.errorText, "Authentication Rejected");
}

TEST_F(Models, TwiceShowsASecondPincodeThatIsTheOneToType) {
    client().registerAgent();
    const auto twice = device("twice");
    const auto pairing = client().start(twice, kDevice1, "Pair");
    ASSERT_TRUE(client().waitFor([&] { return client().agentCalls.size() == 2; }));
    const std::string last = client().agentCalls[1].arguments.at(1).text();
    ASSERT_TRUE(client().waitFor([&] {
        return client().call(kControlPath, kControl1, "TypePinCode", {path(twice), text(last)}).isOk();
    }));
    ASSERT_TRUE(client().waitFor([&] { return pairing->isAnswered; }));
    EXPECT_TRUE(pairing->isOk());
}

TEST_F(Models, AsksForItsPincodeAndIsPairedWhenToldOne) {
    client().registerAgent();
    const auto printer = device("asks");
    const auto pairing = client().start(printer, kDevice1, "Pair");
    ASSERT_TRUE(client().waitFor([&] { return client().agentCalls.size() == 1; }));
    EXPECT_EQ(client().agentCalls[0].member, "RequestPinCode");
    sd_bus_reply_method_return(client().agentCalls[0].message.get(), "s", "0000");
    ASSERT_TRUE(client().waitFor([&] { return pairing->isAnswered; }));
    EXPECT_TRUE(pairing->isOk());
}

TEST_F(Models, AsksFailsWhenTheAgentDoesNotAnswerInTime) {
    tune("agent-timeout", 30);
    client().registerAgent();
    EXPECT_EQ(pair(device("asks")).errorName, "org.bluez.Error.AuthenticationFailed");
}

TEST_F(Models, SilentNeverAnswersUntilItIsCancelled) {
    const auto silent = device("silent");
    const auto pairing = client().start(silent, kDevice1, "Pair");
    EXPECT_TRUE(pair(device("speaker")).isOk());  // two seconds
    EXPECT_FALSE(pairing->isAnswered);
    EXPECT_TRUE(client().call(silent, kDevice1, "CancelPairing").isOk());
    EXPECT_EQ(pairing->errorName, "org.bluez.Error.AuthenticationCanceled");
}

TEST_F(Models, VanishingGoesAwayAndPairIsAnswered) {
    client().registerAgent();
    const auto vanishing = device("vanishing");
    const auto outcome = pair(vanishing);
    EXPECT_EQ(client().agentCalls.size(), 1U);
    EXPECT_EQ(outcome.errorName, "org.bluez.Error.ConnectionAttemptFailed");
    EXPECT_TRUE(client().waitFor([&] { return client().told(vanishing).back().starts_with("InterfacesRemoved"); }));
}

TEST_F(Models, LostGoesAwayAndPairIsNeverAnswered) {
    client().registerAgent();
    const auto lost = device("lost");
    const auto pairing = client().start(lost, kDevice1, "Pair");
    ASSERT_TRUE(client().waitFor([&] { return client().told(lost).back().starts_with("InterfacesRemoved"); }));
    client().catchUp();
    EXPECT_FALSE(pairing->isAnswered);
}

TEST_F(Models, UnreachableHesitantAndFailingEndWithTheirErrors) {
    client().registerAgent();
    const auto unreachable = client().start(device("unreachable"), kDevice1, "Pair");
    EXPECT_EQ(pair(device("hesitant")).errorName, "org.bluez.Error.AuthenticationTimeout");
    EXPECT_EQ(pair(device("failing")).errorName, "org.bluez.Error.AuthenticationFailed");
    ASSERT_TRUE(client().waitFor([&] { return unreachable->isAnswered; }));
    EXPECT_EQ(unreachable->errorName, "org.bluez.Error.ConnectionAttemptFailed");
}

TEST_F(Models, ProfilesOnOfferAreConnectedAndOthersAreNot) {
    const auto headset = device("headset");
    EXPECT_TRUE(pair(headset).isOk());
    EXPECT_TRUE(connectProfile(headset, kAudioSink).isOk());
    const auto none = connectProfile(headset, kSerialPort);
    EXPECT_EQ(none.errorName, "org.bluez.Error.NotAvailable");
    EXPECT_EQ(none.errorText, "br-connection-profile-unavailable");
    EXPECT_EQ(connectProfile(device("bare"), kAudioSink).errorName, "org.bluez.Error.NotAvailable");
}

TEST_F(Models, ProfileFailsAnswersEachConnectProfileWithAnError) {
    const auto headset = device("profile-fails");
    EXPECT_TRUE(pair(headset).isOk());
    EXPECT_EQ(connectProfile(headset, kAudioSink).errorName, "org.bluez.Error.Failed");
    EXPECT_EQ(connectProfile(headset, kAudioSink).errorName, "org.bluez.Error.Failed");
}

TEST_F(Models, ProfileSlowTakesThreeSeconds) {
    const auto headset = device("profile-slow");
    const auto before = std::chrono::steady_clock::now();
    const auto connecting = client().start(headset, kDevice1, "ConnectProfile", {text(kAudioSink)});
    ASSERT_TRUE(client().waitFor([&] { return connecting->isAnswered; }));
    EXPECT_TRUE(connecting->isOk());
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(2900));
}

TEST_F(Models, ProfileNeverIsBusyWithConnectProfileUntilTheDeviceGoes) {
    const auto headset = device("profile-never");
    const auto connecting = client().start(headset, kDevice1, "ConnectProfile", {text(kAudioSink)});
    const auto busy = connectProfile(headset, kAudioSink);
    EXPECT_EQ(busy.errorName, "org.bluez.Error.InProgress");
    EXPECT_EQ(busy.errorText, "br-connection-busy");
    EXPECT_FALSE(connecting->isAnswered);
    client().control("RemoveDevice", {path(headset)});
    ASSERT_TRUE(client().waitFor([&] { return connecting->isAnswered; }));
    EXPECT_EQ(connecting->errorName, "org.bluez.Error.Failed");
}

TEST_F(Models, UnreadableCannotBeReadButIsListed) {
    const auto closed = device("unreadable");
    const auto outcome = client().call(closed, kProperties, "Get", {text(kDevice1), text("Alias")});
    EXPECT_EQ(outcome.errorName, "org.bluez.Error.Failed");
    EXPECT_EQ(client().call(closed, kProperties, "GetAll", {text(kDevice1)}).errorName, "org.bluez.Error.Failed");
    EXPECT_TRUE(client().property(closed, kDevice1, "Connected"));
    ASSERT_FALSE(client().told(closed).empty());
    EXPECT_NE(client().told(closed)[0].find("\"Alias\": s:\"Closed Headset\""), std::string::npos);
    EXPECT_TRUE(pair(closed).isOk());
}

TEST_F(Models, WrongTypesKeepsItsTypesWhenPaired) {
    const auto odd = device("wrong-types");
    EXPECT_TRUE(pair(odd).isOk());
    EXPECT_EQ(client().property(odd, kDevice1, "Alias"), Value::uint32(5));
    EXPECT_EQ(client().property(odd, kDevice1, "Class"), text("headset"));
    EXPECT_EQ(client().property(odd, kDevice1, "Paired"), text("no"));
    EXPECT_EQ(client().property(odd, kDevice1, "Adapter"), Value::uint32(0));
    EXPECT_EQ(pair(odd).errorName, "org.bluez.Error.AlreadyExists");
}

TEST_F(Models, AddressesMayBeMissingOrNumbers) {
    EXPECT_FALSE(client().property(device("no-address"), kDevice1, "Address"));
    EXPECT_EQ(client().property(device("number-address"), kDevice1, "Address")->signature(), "t");
}

TEST_F(Models, UuidsAreOddMixedNumbersOrNoList) {
    const auto odd = client().property(device("odd-uuids"), kDevice1, "UUIDs");
    ASSERT_TRUE(odd);
    const auto& list = odd->elements();
    for (const char* uuid : {"110a", "", "-", "0000110g-0000-1000-8000-00805f9b34fb", "00001124-"}) {
        EXPECT_NE(std::find(list.begin(), list.end(), text(uuid)), list.end()) << uuid;
    }
    EXPECT_EQ(std::count(list.begin(), list.end(), text(kAudioSink)), 2);
    EXPECT_EQ(client().property(device("mixed-uuids"), kDevice1, "UUIDs")->signature(), "av");
    EXPECT_EQ(client().property(device("number-uuids"), kDevice1, "UUIDs")->signature(), "au");
    EXPECT_EQ(client().property(device("no-list-uuids"), kDevice1, "UUIDs")->signature(), "u");
}

TEST_F(Models, AliasesMayBeOddLongOrEmpty) {
    const auto alias = [this](const char* model) {
        return client().property(device(model), kDevice1, "Alias")->text();
    };
    EXPECT_EQ(alias("control-alias"), "Bell\a and \x1b[31mred\x1b[0m,\nsecond line\ttab\x7f");
    EXPECT_EQ(alias("long-alias").size(), 10000U);
    EXPECT_EQ(alias("path-alias"), "../../etc/passwd/");
    EXPECT_EQ(alias("empty-alias"), "");
    EXPECT_GT(alias("unicode-alias").size(), 20U);
}

TEST_F(Models, ConnectAndDisconnect) {
    const auto headset = device("headset");
    EXPECT_EQ(client().call(headset, kDevice1, "Disconnect").errorName, "org.bluez.Error.NotConnected");
    EXPECT_TRUE(client().call(headset, kDevice1, "Connect").isOk());
    EXPECT_TRUE(client().property(headset, kDevice1, "Connected")->isTrue());
    EXPECT_TRUE(client().call(headset, kDevice1, "DisconnectProfile", {text(kAudioSink)}).isOk());
    EXPECT_TRUE(client().call(headset, kDevice1, "Disconnect").isOk());
    EXPECT_FALSE(client().property(headset, kDevice1, "Connected")->isTrue());
}

}  // namespace

}  // namespace SimulatorTests
