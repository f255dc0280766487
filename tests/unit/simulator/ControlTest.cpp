#include "tests/unit/simulator/SimulatorTest.h"
#include "tests/unit/support/Waiting.h"

namespace SimulatorTests {

namespace {

using namespace Simulator;

class ControlInterface : public SimulatorTest {
protected:
    std::shared_ptr<const Outcome> startName() {
        return client().start(kHci0, kProperties, "Get", {text(kAdapter1), text("Name")});
    }
    Outcome refused(const std::string& member, const Value::List& arguments) {
        return client().call(kControlPath, kControl1, member, arguments);
    }
    void expectMistake(const std::string& member, const Value::List& arguments) {
        const auto outcome = refused(member, arguments);
        EXPECT_EQ(outcome.errorName, "org.freedesktop.DBus.Error.InvalidArgs") << member;
        EXPECT_FALSE(outcome.errorText.empty());
    }
    static Value arguments(const Value::List& values) {
        Value::List variants;
        for (const auto& value : values) variants.push_back(Value::variant(value));
        return Value::array("v", variants);
    }
};

TEST_F(ControlInterface, AdaptersComeAndGo) {
    const auto added = client().control(
        "AddAdapter", {text("hci7"), text("00:11:22:33:44:55"), dictionary({{"Name", text("seventh")}})});
    EXPECT_EQ(added.at(0), path("/org/bluez/hci7"));
    EXPECT_EQ(client().property("/org/bluez/hci7", kAdapter1, "Name"), text("seventh"));
    EXPECT_EQ(client().property("/org/bluez/hci7", kAdapter1, "Address"), text("00:11:22:33:44:55"));
    EXPECT_TRUE(client().call("/org/bluez/hci7", kAdapter1, "StartDiscovery").isOk());
    client().control("RemoveAdapter", {path("/org/bluez/hci7")});
    EXPECT_FALSE(client().property("/org/bluez/hci7", kAdapter1, "Name"));
    EXPECT_TRUE(client().told("/org/bluez/hci7").back().starts_with("InterfacesRemoved"));
}

TEST_F(ControlInterface, DevicesTakePropertiesOfAnyType) {
    const auto odd = device("headset", {{"Alias", Value::strings({"a", "b"})}, {"Extra", Value::uint64(7)}});
    EXPECT_EQ(client().property(odd, kDevice1, "Alias"), Value::strings({"a", "b"}));
    EXPECT_EQ(client().property(odd, kDevice1, "Extra"), Value::uint64(7));
}

TEST_F(ControlInterface, PropertiesAreSetWithAndWithoutASignal) {
    const auto set = [this](const char* value, bool isTold) {
        client().control("SetProperty", {path(kHci0), text(kAdapter1), text("Name"), Value::variant(text(value)),
                                         Value::boolean(isTold)});
    };
    set("told", true);
    EXPECT_EQ(client().told(kHci0).back(), "PropertiesChanged(\"org.bluez.Adapter1\", {\"Name\": s:\"told\"}, [])");
    set("silent", false);
    EXPECT_EQ(client().told(kHci0).size(), 1U);
    EXPECT_EQ(client().property(kHci0, kAdapter1, "Name"), text("silent"));
}

TEST_F(ControlInterface, PropertiesAreDroppedAndBroken) {
    client().control("DropProperty", {path(kHci0), text(kAdapter1), text("Alias"), Value::boolean(true)});
    EXPECT_FALSE(client().property(kHci0, kAdapter1, "Alias"));
    EXPECT_EQ(client().told(kHci0).back(), "PropertiesChanged(\"org.bluez.Adapter1\", {}, [\"Alias\"])");
    client().control("BreakProperty", {path(kHci0), text(kAdapter1), text("Name"), text("org.example.Broken")});
    const auto outcome = startName();
    ASSERT_TRUE(client().waitFor([&] { return outcome->isAnswered; }));
    EXPECT_EQ(outcome->errorName, "org.example.Broken");
    client().control("BreakProperty", {path(kHci0), text(kAdapter1), text("Name"), text("")});
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Name"));
}

TEST_F(ControlInterface, ObjectsOfAnyKindAreAddedAndRemoved) {
    const Value::List interfaces{Value::structure({text(kDevice1), dictionary({{"Address", Value::uint32(5)}})}),
                                 Value::structure({text(kAdapter1), noProperties()})};
    client().control("AddObject", {path("/anywhere"), Value::array("(sa{sv})", interfaces), Value::boolean(true)});
    EXPECT_EQ(
        client().told("/anywhere").back(),
        "InterfacesAdded(\"/anywhere\", {\"org.bluez.Device1\": {\"Address\": u:5}, \"org.bluez.Adapter1\": {}})");
    EXPECT_EQ(client().call("/anywhere", kAdapter1, "StartDiscovery").errorName,
              "org.freedesktop.DBus.Error.UnknownMethod");
    client().control("RemoveObject", {path("/anywhere"), Value::boolean(false)});
    EXPECT_EQ(client().told("/anywhere").size(), 1U);
    expectMistake("RemoveObject", {path("/anywhere"), Value::boolean(false)});
    expectMistake("RemoveObject", {path(kHci0), Value::boolean(false)});
}

TEST_F(ControlInterface, CallsAreAnsweredLate) {
    client().control("AnswerLate", {text(kHci0), text("Get"), Value::uint32(1), Value::uint32(60)});
    const auto before = std::chrono::steady_clock::now();
    const auto late = startName();
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Name"));  // only the first
    ASSERT_TRUE(client().waitFor([&] { return late->isAnswered; }));
    EXPECT_TRUE(late->isOk());
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(60));
}

TEST_F(ControlInterface, CallsAreHeldUntilTheyAreReleased) {
    client().control("Hold", {text("*"), text("*"), Value::uint32(2)});
    const auto first = startName();
    const auto second = client().start(kHci0, kAdapter1, "StartDiscovery");
    ASSERT_TRUE(client().waitFor([&] { return client().control("Held").at(0).number() == 2; }));
    EXPECT_FALSE(first->isAnswered);
    EXPECT_FALSE(client().property(kHci0, kAdapter1, "Discovering")->isTrue());
    EXPECT_EQ(client().control("Release").at(0).number(), 2U);
    ASSERT_TRUE(client().waitFor([&] { return first->isAnswered && second->isAnswered; }));
    EXPECT_TRUE(first->isOk() && second->isOk());
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Discovering")->isTrue());
}

TEST_F(ControlInterface, CallsAreNeverAnswered) {
    client().control("AnswerNever", {text(kHci0), text("Get Name"), Value::uint32(1)});
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Alias"));  // another property
    const auto never = startName();
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Name"));
    client().catchUp();
    EXPECT_FALSE(never->isAnswered);
}

TEST_F(ControlInterface, CallsAreAnsweredWithAnyError) {
    client().control("AnswerError", {text("*"), text("StartDiscovery"), Value::uint32(2),
                                     text("org.bluez.Error.NotReady"), text("Resource Not Ready")});
    for (int count = 0; count < 2; ++count) {
        const auto outcome = client().call(kHci0, kAdapter1, "StartDiscovery");
        EXPECT_EQ(outcome.errorName, "org.bluez.Error.NotReady");
        EXPECT_EQ(outcome.errorText, "Resource Not Ready");
    }
    EXPECT_TRUE(client().call(kHci0, kAdapter1, "StartDiscovery").isOk());
}

TEST_F(ControlInterface, AnswerNormallyForgetsTheRules) {
    client().control("AnswerNever", {text("*"), text("*"), Value::uint32(100)});
    client().control("AnswerNormally");
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Name"));
}

TEST_F(ControlInterface, SignalsOfAnyContentAreSent) {
    client().control("EmitSignal",
                     {text(""), path("/some/where"), text("org.example.Any"), text("Thing"),
                      arguments({Value::uint32(5), Value::strings({"x"}), Value::structure({text("y")})})});
    ASSERT_FALSE(client().signals.empty());
    EXPECT_EQ(client().signals.back().path, "/some/where");
    EXPECT_EQ(client().signals.back().text(), "Thing(5, [\"x\"], (\"y\"))");
}

TEST_F(ControlInterface, SignalsToOneClientReachNobodyElse) {
    Client other;
    client().control("EmitSignal",
                     {text(other.name()), path("/"), text(kObjectManager), text("InterfacesAdded"), arguments({})});
    EXPECT_TRUE(other.waitFor([&] { return !other.signals.empty(); }));
    client().catchUp();
    EXPECT_TRUE(client().signals.empty());
}

TEST_F(ControlInterface, AgentsAreCalledWithAnything) {
    client().registerAgent();
    const auto result = client().control("CallAgent", {text(client().name()), text("DisplayPinCode"),
                                                       Value::uint32(20000), arguments({text("wrong"), text("way")})});
    EXPECT_EQ(result.at(0).text(), "");
    EXPECT_EQ(client().agentCalls.back().arguments, (Value::List{text("wrong"), text("way")}));
    client().control("CallAgent", {text(""), text("Cancel"), Value::uint32(0), arguments({})});
    ASSERT_TRUE(client().waitFor([&] { return client().agentCalls.back().member == "Cancel"; }));
    EXPECT_EQ(sd_bus_message_get_expect_reply(client().agentCalls.back().message.get()), 0);
    const auto silent = client().control("CallAgent", {text(""), text("Mumble"), Value::uint32(20), arguments({})});
    EXPECT_EQ(silent.at(0).text(), "org.freedesktop.DBus.Error.NoReply");
}

TEST_F(ControlInterface, ClientsAreCalledAndTheirAnswersTold) {
    const auto call = [this](const char* name) {
        return client().control("CallClient", {text("org.freedesktop.DBus"), path("/"), text("org.freedesktop.DBus"),
                                               text("NameHasOwner"), Value::uint32(20000), arguments({text(name)})});
    };
    EXPECT_EQ(call("org.bluez").at(2), Value::array("v", {Value::variant(Value::boolean(true))}));
    EXPECT_EQ(call("not a name").at(0).text(), "");
    const auto failed = client().control("CallClient", {text("org.example.Nobody"), path("/"), text("x.y"), text("Z"),
                                                        Value::uint32(20000), arguments({})});
    EXPECT_EQ(failed.at(0).text(), "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(ControlInterface, CallsAreLoggedAndCounted) {
    client().call(kHci0, kAdapter1, "StartDiscovery");
    client().property(kHci0, kAdapter1, "Name");
    const auto list = client().control("Calls", {text(kHci0), text("*")}).at(0);
    ASSERT_EQ(list.elements().size(), 2U);
    const auto& call = list.elements()[1].elements();
    EXPECT_GT(call[0].number(), 0U);
    EXPECT_EQ(call[1].text(), client().name());
    EXPECT_EQ(call[2].text(), kHci0);
    EXPECT_EQ(call[3].text(), kProperties);
    EXPECT_EQ(call[4].text(), "Get");
    EXPECT_EQ(call[5].text(), "\"org.bluez.Adapter1\", \"Name\"");
    EXPECT_EQ(callCount("StartDiscovery"), 1U);
    EXPECT_EQ(callCount("*"), 2U);
    client().control("ForgetCalls");
    EXPECT_EQ(callCount("*"), 0U);
}

TEST_F(ControlInterface, WaitForCallsAnswersWhenThereWereEnough) {
    const auto waiting = client().start(kControlPath, kControl1, "WaitForCalls",
                                        {text(kHci0), text("StartDiscovery"), Value::uint64(2), Value::uint32(20000)});
    client().call(kHci0, kAdapter1, "StartDiscovery");
    client().catchUp();
    EXPECT_FALSE(waiting->isAnswered);
    client().call(kHci0, kAdapter1, "StartDiscovery");
    ASSERT_TRUE(client().waitFor([&] { return waiting->isAnswered; }));
    EXPECT_EQ(waiting->results.at(0).number(), 2U);
    const auto short_ =
        client().control("WaitForCalls", {text("*"), text("StartDiscovery"), Value::uint64(3), Value::uint32(10)});
    EXPECT_EQ(short_.at(0).number(), 2U);
}

TEST_F(ControlInterface, FloodsKeepTheirRate) {
    client().control("Load", {text("hundred")});
    const auto before = std::chrono::steady_clock::now();
    client().control("Flood", {Value::uint32(5000)});
    const auto sent = [this] { return client().control("FloodSent").at(0).number(); };
    ASSERT_TRUE(client().waitFor([&] { return sent() >= 2000; }));
    const auto taken = std::chrono::steady_clock::now() - before;
    EXPECT_GE(taken, std::chrono::milliseconds(390));  // 2,000 at 5,000 a second are 400
    client().control("Flood", {Value::uint32(0)});
    const auto total = sent();
    client().catchUp();
    std::uint64_t received = 0;
    for (const auto& signal : client().signals) {
        received += signal.text().starts_with("PropertiesChanged(\"org.bluez.Device1\", {\"RSSI\": n:-") ? 1U : 0U;
    }
    EXPECT_EQ(received, total);
    EXPECT_EQ(sent(), total);
}

TEST_F(ControlInterface, ResetBeginsTheScenarioAnew) {
    client().registerAgent();
    const auto added = device("headset");
    client().control("AnswerNever", {text("*"), text("*"), Value::uint32(100)});
    client().control("Reset");
    EXPECT_FALSE(client().property(added, kDevice1, "Alias"));
    EXPECT_TRUE(client().property(kHci0, kAdapter1, "Alias"));
    EXPECT_EQ(client().control("Agents").at(0).elements().size(), 1U);
}

TEST_F(ControlInterface, MistakesAreRefusedAndChangeNothing) {
    const auto nowhere = path("/org/bluez/hci9");
    expectMistake("AddAdapter", {text("hci0"), text("00:00:00:00:00:00"), noProperties()});
    expectMistake("AddAdapter", {text("a/b"), text("00:00:00:00:00:00"), noProperties()});
    expectMistake("RemoveAdapter", {nowhere});
    expectMistake("SetPowered", {nowhere, Value::boolean(true)});
    expectMistake("AddDevice", {nowhere, text("00:00:00:00:00:00"), text("headset"), noProperties()});
    expectMistake("AddDevice", {path(kHci0), text("00:00:00:00:00:00"), text("toaster"), noProperties()});
    expectMistake("AddDevice", {path(kHci0), text("../x"), text("headset"), noProperties()});
    expectMistake("RemoveDevice", {path("/org/bluez/hci0/dev_none")});
    expectMistake("SetProperty", {nowhere, text("x.y"), text("Z"), Value::variant(text("")), Value::boolean(true)});
    expectMistake("BreakProperty", {path(kHci0), text(kAdapter1), text("Name"), text("no name")});
    expectMistake("DropProperty", {path(kHci0), text(kAdapter1), text("Nonsense"), Value::boolean(true)});
    expectMistake("Load", {text("chaos")});
    expectMistake("Tune", {text("patience"), Value::uint32(1)});
    expectMistake("Hold", {text("*"), text("*"), Value::uint32(0)});
    expectMistake("AnswerError", {text("*"), text("*"), Value::uint32(1), text("no name"), text("")});
    expectMistake("CallAgent", {text(""), text("Cancel"), Value::uint32(0), arguments({})});
    expectMistake("EmitSignal", {text(""), path("/"), text("no interface"), text("X"), arguments({})});
    EXPECT_EQ(refused("Nonsense", {}).errorName, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(refused("Load", {}).errorName, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(callCount("*"), 0U);
    EXPECT_TRUE(client().signals.empty());
}

}  // namespace

}  // namespace SimulatorTests
