#include "tests/unit/devices/World.h"

namespace UnitTest {
namespace {

using State = PairingState;
using Records = std::vector<std::string>;
using std::chrono::milliseconds;

constexpr const char* kSink = "0000110b-0000-1000-8000-00805f9b34fb";
constexpr const char* kSource = "0000110a-0000-1000-8000-00805f9b34fb";

/// Values as text: NAME=7, NAME="text", NAME=[children], NAME alone for none; ?=... without a name.
std::string show(const TArray<NodeValue>& values) {
    std::string shown;
    for (const NodeValue& value : values) {
        if (!shown.empty()) shown += ' ';
        shown += value.name ? std::string(value.name->view()) : "?";
        if (value.kind == NodeValue::kInteger) shown += "=" + std::to_string(value.integer);
        if (value.kind == NodeValue::kString) shown += "=\"" + std::string(viewOf(value.text)) + "\"";
        if (value.kind == NodeValue::kList) shown += "=[" + show(value.children) + "]";
    }
    return shown;
}

NodeValue integer(const char* name, std::uint64_t number) {
    return NodeValue::makeInteger(text(name), number);
}
NodeValue string(const char* name, const char* value) {
    return NodeValue::makeString(text(name), text(value));
}
NodeValue none(const char* name) {
    return NodeValue::makeString(text(name), nullptr);
}
NodeValue list(const char* name, TArray<NodeValue> children) {
    return NodeValue::makeList(text(name), std::move(children));
}

class DeviceCommands : public World {
protected:
    const std::string path_ = kPath;
    const std::uint64_t id_ = nodeIdOf(kPath);

    std::string get(const char* attribute) {
        devices().setCallerId(id_);
        return show(devices().getAttribute(text(attribute)));
    }
    std::string execute(TArray<NodeValue> actions) {
        devices().setCallerId(id_);
        return show(devices().execute(std::move(actions)));
    }
    std::unique_ptr<Request<std::string>> request(NodeValue action) {
        return std::make_unique<Request<std::string>>([this, action] { return execute({action}); });
    }
    Devices& devices() { return service_->devices(); }

    void publishWithClass(std::uint32_t classOfDevice) {
        describe(kPath, "Keyboard", false, classOfDevice);
        ASSERT_TRUE(devices().addDevice(text(kPath), text(kAddress), service_));
    }
    Ref<Device> publishPaired(std::vector<std::string> uuids) {
        offer(kPath, std::move(uuids));
        Ref<Device> device = publish();
        bluez_.on(kDeviceInterface, "Pair", FakePeer::answers());
        EXPECT_EQ(execute({none("CONNECT")}), "CONNECT=[RESULT=0]");
        settle();
        log_.forget();
        bluez_.forgetCalls();
        return device;
    }
};

// Names

TEST_F(DeviceCommands, NamesItsAttributesAndActions) {
    const std::vector<std::string> attributes{
        "ADDRESS",  "NAME",           "STATUS", "MAJOR_SERVICE_CLASSES", "MAJOR_DEVICE_CLASS", "MINOR_DEVICE_CLASS",
        "PROFILES", "ACTIVE_PROFILES"};
    ASSERT_EQ(devices().attributeCount(), attributes.size());
    for (std::size_t index = 0; index < attributes.size(); ++index) {
        EXPECT_EQ(viewOf(devices().attributeName(index)), attributes[index]);
    }
    EXPECT_FALSE(devices().attributeName(8));
    EXPECT_FALSE(devices().attributeName(~std::uint64_t{0}));
    const std::vector<std::string> actions{"CONNECT", "WAIT_CONNECTED", "ACTIVATE_PROFILE", "DISCONNECT"};
    ASSERT_EQ(devices().actionCount(), actions.size());
    for (std::size_t index = 0; index < actions.size(); ++index) {
        EXPECT_EQ(viewOf(devices().actionName(index)), actions[index]);
    }
    EXPECT_FALSE(devices().actionName(4));
}

// Attributes

TEST_F(DeviceCommands, ReportsAddressNameAndStatus) {
    publish();
    EXPECT_EQ(get("ADDRESS"), "ADDRESS=\"00:11:22:33:44:55\"");
    EXPECT_EQ(get("NAME"), "NAME=\"Keyboard\"");
    EXPECT_EQ(get("STATUS"), "STATUS=1");
}

TEST_F(DeviceCommands, ReportsNothingForAnUnknownAttribute) {
    publish();
    for (const char* name : {"address", "PINCODE", "", "ADDRESS "}) EXPECT_EQ(get(name), "");
    devices().setCallerId(id_);
    EXPECT_EQ(devices().getAttribute(nullptr).size(), 0u);
}

TEST_F(DeviceCommands, ReportsTheNewNameAfterAChange) {
    publish();
    emitChanged(kPath, kDeviceInterface, {{"Alias", "Kitchen"}});
    settle();
    EXPECT_EQ(get("NAME"), "NAME=\"Kitchen\"");
}

TEST_F(DeviceCommands, MapsEveryPairingStateToAStatus) {
    const Ref<Device> device = publish();
    const std::vector<std::pair<State, const char*>> codes{
        {State::Unpaired, "STATUS=1"},   {State::Pairing, "STATUS=2"}, {State::Pincode, "STATUS=0"},
        {State::Cancelling, "STATUS=0"}, {State::Paired, "STATUS=3"},  {State::Unpairing, "STATUS=0"}};
    for (const auto& [state, status] : codes) {
        DeviceProbe::forceState(*device, state);
        EXPECT_EQ(get("STATUS"), status);
    }
    DeviceProbe::forceState(*device, State::Unpaired);
}

TEST_F(DeviceCommands, SplitsTheClassOfDevice) {
    publishWithClass(0x5A020C);
    EXPECT_EQ(get("MAJOR_SERVICE_CLASSES"), "MAJOR_SERVICE_CLASSES=" + std::to_string(0x2D0));
    EXPECT_EQ(get("MAJOR_DEVICE_CLASS"), "MAJOR_DEVICE_CLASS=2");
    EXPECT_EQ(get("MINOR_DEVICE_CLASS"), "MINOR_DEVICE_CLASS=3");
}

TEST_F(DeviceCommands, CutsTheClassOfDeviceToItsFields) {
    publishWithClass(0xFFFFFF);
    EXPECT_EQ(get("MAJOR_SERVICE_CLASSES"), "MAJOR_SERVICE_CLASSES=1023");
    EXPECT_EQ(get("MAJOR_DEVICE_CLASS"), "MAJOR_DEVICE_CLASS=31");
    EXPECT_EQ(get("MINOR_DEVICE_CLASS"), "MINOR_DEVICE_CLASS=63");
}

TEST_F(DeviceCommands, NeverReportsTheHighestServiceClassBit) {
    publishWithClass(0x800000);
    EXPECT_EQ(get("MAJOR_SERVICE_CLASSES"), "MAJOR_SERVICE_CLASSES=0");
}

TEST_F(DeviceCommands, ListsProfilesAndActiveProfiles) {
    publish();
    EXPECT_EQ(get("PROFILES"), "PROFILES=[]");
    EXPECT_EQ(get("ACTIVE_PROFILES"), "ACTIVE_PROFILES=[]");
}

TEST_F(DeviceCommands, ListsProfilesByNumberInBluezsOrder) {
    publishPaired({kSink, kSource});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    EXPECT_EQ(get("PROFILES"), "PROFILES=[PROFILE=4363 PROFILE=4362]");
    EXPECT_EQ(get("ACTIVE_PROFILES"), "ACTIVE_PROFILES=[]");
    EXPECT_EQ(execute({integer("ACTIVATE_PROFILE", 4362), list("ACTIVATE_PROFILE", {integer("PROFILE", 4362)})}),
              "ACTIVATE_PROFILE=[RESULT=4294967295] ACTIVATE_PROFILE=[RESULT=0]");
    EXPECT_EQ(get("ACTIVE_PROFILES"), "ACTIVE_PROFILES=[PROFILE=4362]");
    EXPECT_EQ(get("PROFILES"), "PROFILES=[PROFILE=4363 PROFILE=4362]");
}

TEST_F(DeviceCommands, SetsNothing) {
    publish();
    devices().setCallerId(id_);
    EXPECT_EQ(devices().setAttribute({string("NAME", "Mine")}).size(), 0u);
    EXPECT_EQ(get("NAME"), "NAME=\"Keyboard\"");
}

TEST_F(DeviceCommands, AnswersNothingForADeviceThatIsGone) {
    publish();
    ASSERT_TRUE(devices().removeDevice(text(kPath)));
    EXPECT_EQ(get("ADDRESS"), "");
    EXPECT_EQ(execute({none("CONNECT"), none("NONSENSE")}), "");
    EXPECT_EQ(bluez_.count(kDeviceInterface, "Pair"), 0u);
}

// Actions

TEST_F(DeviceCommands, AnswersAnEmptyRequestWithAnEmptyReply) {
    publish();
    EXPECT_EQ(execute({}), "");
}

TEST_F(DeviceCommands, AnswersAnUnknownActionWithItsCodeAmongTheOthers) {
    publish();
    EXPECT_EQ(execute({none("DISCONNECT"), none("connect"), none("WAIT_CONNECTED")}),
              "DISCONNECT=33859 connect=33862 WAIT_CONNECTED=33923");
    EXPECT_EQ(execute({none("PINCODE"), none("")}), "PINCODE=33862 =33862");
}

TEST_F(DeviceCommands, TakesAnActionWithoutANameForAnUnknownOne) {
    publish();
    EXPECT_EQ(execute({NodeValue::makeInteger(nullptr, 7)}), "?=33862");
}

TEST_F(DeviceCommands, ConnectAnswersZeroAloneWhenPaired) {
    publish();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::answers());
    EXPECT_EQ(execute({none("CONNECT")}), "CONNECT=[RESULT=0]");
    EXPECT_EQ(get("STATUS"), "STATUS=3");
}

TEST_F(DeviceCommands, ConnectAnswersThePincode) {
    const Ref<Device> device = publish();
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    const auto connecting = request(none("CONNECT"));
    const auto pair = bluez_.takeHeld();
    ASSERT_TRUE(pair);
    EXPECT_EQ(get("STATUS"), "STATUS=2");
    displayPincode(kPath, "0042");
    EXPECT_EQ(connecting->answer(), "CONNECT=[RESULT=1 PINCODE=\"0042\"]");
    EXPECT_EQ(get("STATUS"), "STATUS=0");
    const auto waiting = request(none("WAIT_CONNECTED"));
    ASSERT_TRUE(waitForWaiters(device, 1));
    pair->reply();
    EXPECT_EQ(waiting->answer(), "WAIT_CONNECTED=0");
}

TEST_F(DeviceCommands, ConnectAnswersAFailureWithoutSign) {
    publish();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::fails("org.bluez.Error.Failed"));
    EXPECT_EQ(execute({none("CONNECT")}), "CONNECT=[RESULT=4294967295]");
}

TEST_F(DeviceCommands, ConnectTakesTheFirstOptionForItsTimeOutWhateverItsName) {
    publish();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::silent());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(execute({list("CONNECT", {integer("WHATEVER", 250), integer("TIMEOUT", 60000)})}),
              "CONNECT=[RESULT=4294967295]");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(250));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(5250));
}

TEST_F(DeviceCommands, ConnectTakesTheLowBitsOfItsTimeOut) {
    publish();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::silent());
    EXPECT_EQ(execute({list("CONNECT", {integer("TIMEOUT", 0x700000000u + 100)})}), "CONNECT=[RESULT=4294967295]");
}

TEST_F(DeviceCommands, ConnectWaitsWithoutLimitWhenTheFirstOptionIsNoNumber) {
    publish();
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    const auto connecting = request(list("CONNECT", {string("TIMEOUT", "50"), integer("TIMEOUT", 50)}));
    const auto pair = bluez_.takeHeld();
    ASSERT_TRUE(pair);
    EXPECT_FALSE(connecting->answeredWithin(milliseconds(300)));
    pair->reply();
    EXPECT_EQ(connecting->answer(), "CONNECT=[RESULT=0]");
}

TEST_F(DeviceCommands, ConnectTakesNoTimeOutFromAnActionThatIsNoList) {
    publish();
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    const auto connecting = request(integer("CONNECT", 50));
    const auto pair = bluez_.takeHeld();
    ASSERT_TRUE(pair);
    EXPECT_FALSE(connecting->answeredWithin(milliseconds(300)));
    pair->reply();
    EXPECT_EQ(connecting->answer(), "CONNECT=[RESULT=0]");
}

TEST_F(DeviceCommands, WaitConnectedTakesItsTimeOutInMilliseconds) {
    const Ref<Device> device = publish();
    std::unique_ptr<Request<Connected>> connecting;
    const auto pair = beginPairing(device, &connecting);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(execute({list("WAIT_CONNECTED", {integer("TIMEOUT", 200)})}), "WAIT_CONNECTED=33859");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(200));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(5200));
    pair->reply();
    EXPECT_EQ(connecting->answer(), Connected(0, ""));
    EXPECT_EQ(execute({none("WAIT_CONNECTED")}), "WAIT_CONNECTED=0");
}

TEST_F(DeviceCommands, DisconnectAnswersItsResult) {
    const Ref<Device> device = publish();
    std::unique_ptr<Request<Connected>> connecting;
    const auto pair = beginPairing(device, &connecting);
    const auto cancel = request(none("DISCONNECT"));
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(cancel->answer(), "DISCONNECT=0");
    EXPECT_EQ(execute({none("DISCONNECT")}), "DISCONNECT=33859");
}

TEST_F(DeviceCommands, ABlockedConnectHoldsUpNoOtherDevice) {
    const Ref<Device> device = publish();
    publish(kOtherPath, kOtherAddress);
    std::unique_ptr<Request<Connected>> connecting;
    const auto pair = beginPairing(device, &connecting);
    EXPECT_EQ(get("NAME"), "NAME=\"Keyboard\"");
    devices().setCallerId(nodeIdOf(kOtherPath));
    EXPECT_EQ(show(devices().getAttribute(text("ADDRESS"))), "ADDRESS=\"AA:BB:CC:DD:EE:FF\"");
    pair->reply();
    EXPECT_EQ(connecting->answer(), Connected(0, ""));
}

// Activating a profile

TEST_F(DeviceCommands, ActivatesAProfileByItsNumberOrItsText) {
    publishPaired({kSink, kSource, kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    EXPECT_EQ(execute({list("ACTIVATE_PROFILE", {integer("PROFILE", 0x900000000u + 0x110B)}),
                       string("ACTIVATE_PROFILE", "4362"), string("ACTIVATE_PROFILE", "0x110a")}),
              "ACTIVATE_PROFILE=[RESULT=0] ACTIVATE_PROFILE=[RESULT=0] ACTIVATE_PROFILE=[RESULT=4294967295]");
    EXPECT_EQ(get("ACTIVE_PROFILES"), "ACTIVE_PROFILES=[PROFILE=4363 PROFILE=4362]");
    EXPECT_EQ(bluez_.count(kDeviceInterface, "ConnectProfile"), 2u);
}

TEST_F(DeviceCommands, RefusesAProfileOptionThatIsNoNumber) {
    publishPaired({kSink});
    const std::string refused = "ACTIVATE_PROFILE=[RESULT=4294967295]";
    const std::string record = "4 ACTIVATE_PROFILE: profile UUID must be a number";
    EXPECT_EQ(execute({list("ACTIVATE_PROFILE", {string("PROFILE", "4363")})}), refused);
    EXPECT_EQ(execute({list("ACTIVATE_PROFILE", {none("PROFILE")})}), refused);
    EXPECT_EQ(execute({list("ACTIVATE_PROFILE", {integer("profile", 4363)})}), refused);
    EXPECT_EQ(execute({list("ACTIVATE_PROFILE", {NodeValue::makeInteger(nullptr, 4363)})}), refused);
    EXPECT_EQ(execute({list("ACTIVATE_PROFILE", {integer("OTHER", 1), integer("PROFILE", 4363)})}), refused);
    EXPECT_EQ(log_.records(), Records(5, record));
    EXPECT_EQ(bluez_.calls().size(), 0u);
}

TEST_F(DeviceCommands, RefusesToActivateWithoutAProfile) {
    publishPaired({kSink});
    const std::string refused = "ACTIVATE_PROFILE=[RESULT=4294967295]";
    EXPECT_EQ(execute({none("ACTIVATE_PROFILE")}), refused);
    EXPECT_EQ(execute({integer("ACTIVATE_PROFILE", 4363)}), refused);
    EXPECT_EQ(execute({list("ACTIVATE_PROFILE", {})}), refused);
    EXPECT_EQ(log_.records(), Records(3, "4 ACTIVATE_PROFILE: missing UUID parameter"));
}

TEST_F(DeviceCommands, RefusesATextThatIsNoProfileNumber) {
    publishPaired({kSink});
    for (const char* bad : {"", "110b", kSink, "-1", "+4363", " 4363", "4294967296", "0x", "0x1ffffffff", "1.5"}) {
        EXPECT_EQ(execute({string("ACTIVATE_PROFILE", bad)}), "ACTIVATE_PROFILE=[RESULT=4294967295]");
        EXPECT_EQ(log_.records(), Records{std::string("4 ACTIVATE_PROFILE: cannot parse UUID ") + bad});
        log_.forget();
    }
    EXPECT_EQ(bluez_.calls().size(), 0u);
}

TEST_F(DeviceCommands, PassesTheLimitsOfProfileNumbersOn) {
    publishPaired({"00000000-0000-1000-8000-00805f9b34fb", "ffffffff-0000-1000-8000-00805f9b34fb"});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    EXPECT_EQ(execute({string("ACTIVATE_PROFILE", "0"), string("ACTIVATE_PROFILE", "4294967295")}),
              "ACTIVATE_PROFILE=[RESULT=0] ACTIVATE_PROFILE=[RESULT=0]");
    EXPECT_EQ(get("ACTIVE_PROFILES"), "ACTIVE_PROFILES=[PROFILE=0 PROFILE=4294967295]");
}

}  // namespace
}  // namespace UnitTest
