#include "simulator/Scenario.h"
#include "tests/unit/simulator/SimulatorTest.h"

namespace SimulatorTests {

namespace {

using namespace Simulator;

class Objects : public SimulatorTest {
protected:
    explicit Objects(const std::string& scenario = "two-adapters") : SimulatorTest(scenario) {}
    Value managed() {
        const auto outcome = client().call("/", kObjectManager, "GetManagedObjects");
        EXPECT_EQ(outcome.errorName, "");
        return outcome.results.at(0);
    }
    /// The interfaces of an object, in their order; none when it is not listed.
    std::vector<std::string> interfaces(const Value& managed, const std::string& object) {
        std::vector<std::string> names;
        for (const auto& entry : managed.elements()) {
            if (entry.elements()[0].text() != object) continue;
            for (const auto& interface : entry.elements()[1].elements())
                names.push_back(interface.elements()[0].text());
        }
        return names;
    }
    Outcome set(const std::string& interface, const std::string& property, const Value& value) {
        return client().call(kHci0, kProperties, "Set", {text(interface), text(property), Value::variant(value)});
    }
    void load(const char* scenario) { client().control("Load", {text(scenario)}); }
};

using Names = std::vector<std::string>;

TEST_F(Objects, AreListedWithTheInterfacesOfBluetoothd) {
    const auto headset = device("headset");
    const auto objects = managed();
    EXPECT_EQ(objects.signature(), "a{oa{sa{sv}}}");
    EXPECT_EQ(interfaces(objects, kRoot), (Names{"org.freedesktop.DBus.Introspectable", "org.bluez.AgentManager1",
                                                 "org.bluez.ProfileManager1", "org.bluez.HealthManager1"}));
    EXPECT_EQ(interfaces(objects, kHci0),
              (Names{"org.freedesktop.DBus.Introspectable", "org.bluez.Adapter1", "org.freedesktop.DBus.Properties",
                     "org.bluez.GattManager1", "org.bluez.Media1", "org.bluez.NetworkServer1"}));
    EXPECT_EQ(interfaces(objects, headset),
              (Names{"org.freedesktop.DBus.Introspectable", "org.bluez.Device1", "org.freedesktop.DBus.Properties"}));
}

TEST_F(Objects, ReadsOfWhatIsNotThereFailAsInBluetoothd) {
    const auto get = [this](const char* interface, const char* property) {
        return client().call(kHci0, kProperties, "Get", {text(interface), text(property)});
    };
    EXPECT_EQ(get(kAdapter1, "Address").results.at(0), Value::variant(text("00:AA:01:00:00:00")));
    EXPECT_EQ(get(kAdapter1, "Nonsense").errorName, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(get(kAdapter1, "Nonsense").errorText, "No such property 'Nonsense'");
    EXPECT_EQ(get("x.y", "Address").errorText, "No such interface 'x.y'");
    EXPECT_EQ(client().call(kHci0, kProperties, "GetAll", {text("x.y")}).errorText, "No such interface 'x.y'");
    EXPECT_EQ(client().call(kHci0, kProperties, "GetAll", {text(kAdapter1)}).results.at(0).signature(), "a{sv}");
    EXPECT_EQ(client().call(kHci0, kProperties, "Get", {text(kAdapter1)}).errorName,
              "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(Objects, WritesAreTakenWhereBluetoothdTakesThem) {
    EXPECT_TRUE(set(kAdapter1, "Alias", text("den")).isOk());
    EXPECT_EQ(client().property(kHci0, kAdapter1, "Alias"), text("den"));
    EXPECT_EQ(client().told(kHci0).back(), "PropertiesChanged(\"org.bluez.Adapter1\", {\"Alias\": s:\"den\"}, [])");
    EXPECT_EQ(set(kAdapter1, "Address", text("x")).errorName, "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(set(kAdapter1, "Address", text("x")).errorText, "Property 'Address' is not writable");
    EXPECT_EQ(set(kAdapter1, "Nonsense", text("x")).errorName, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(set("x.y", "Nonsense", text("x")).errorName, "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(set(kAdapter1, "Powered", text("x")).errorName, "org.freedesktop.DBus.Error.InvalidSignature");
    EXPECT_EQ(set(kAdapter1, "Powered", text("x")).errorText, "Invalid signature for 'Powered'");
}

TEST_F(Objects, ADevicesAliasCanBeSetAndReset) {
    const auto headset = device("headset");
    const auto setAlias = [&](const char* alias) {
        return client().call(headset, kProperties, "Set", {text(kDevice1), text("Alias"), Value::variant(text(alias))});
    };
    EXPECT_TRUE(setAlias("Mine").isOk());
    EXPECT_EQ(client().property(headset, kDevice1, "Alias"), text("Mine"));
    EXPECT_TRUE(setAlias("").isOk());
    EXPECT_EQ(client().property(headset, kDevice1, "Alias"), text("Travel Headset"));
}

TEST_F(Objects, UnknownMethodsAndObjectsAreToldApart) {
    const auto name = [this](const char* object, const char* interface, const char* member) {
        return client().call(object, interface, member).errorName;
    };
    EXPECT_EQ(name(kHci0, kAdapter1, "Nonsense"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(name("/", "x.y", "Nonsense"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(name("/org", "x.y", "Nonsense"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(name("/nowhere", "x.y", "Nonsense"), "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(name("/org/bluez/hci9", kAdapter1, "StartDiscovery"), "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(client().call(kHci0, kAdapter1, "RemoveDevice", {text("x")}).errorName,
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(client().call(kHci0, kAdapter1, "RemoveDevice", {path("/org/bluez/hci0/dev_none")}).errorName,
              "org.bluez.Error.DoesNotExist");
}

TEST_F(Objects, IntrospectListsChildrenMethodsAndProperties) {
    const auto introspect = [this](const char* object) {
        return client().call(object, kIntrospectable, "Introspect").results.at(0).text();
    };
    EXPECT_NE(introspect("/").find("<node name=\"org\"/>"), std::string::npos);
    EXPECT_NE(introspect("/org/bluez").find("<node name=\"hci1\"/>"), std::string::npos);
    EXPECT_NE(introspect(kHci0).find("<method name=\"RemoveDevice\"><arg type=\"o\" direction=\"in\"/></method>"),
              std::string::npos);
    EXPECT_NE(introspect(kHci0).find("<property name=\"Powered\" type=\"b\""), std::string::npos);
    EXPECT_NE(introspect(kControlPath).find("<method name=\"Quit\">"), std::string::npos);
}

TEST_F(Objects, PeerAnswers) {
    EXPECT_TRUE(client().call(kHci0, "org.freedesktop.DBus.Peer", "Ping").isOk());
}

TEST_F(Objects, EveryScenarioCanBeLoadedAndListsWhatItSays) {
    for (const auto& scenario : scenarios()) {
        const auto made = scenario.make();
        if (made.devices.size() > 100) continue;  // see below
        load(scenario.name);
        std::size_t shown = 1 + made.adapters.size() + made.objects.size();  // and /org/bluez
        for (const auto& device : made.devices) shown += device.foundAfter ? 0U : 1U;
        EXPECT_EQ(managed().elements().size(), shown) << scenario.name;
    }
}

TEST_F(Objects, MalformedKeepsTheOrderOfInterfacesAndTheOddProperties) {
    load("malformed");
    const auto objects = managed();
    EXPECT_EQ(interfaces(objects, "/org/bluez/hci2"), (Names{kAdapter1, kDevice1, kProperties}));
    EXPECT_EQ(interfaces(objects, "/org/bluez/hci0/dev_AdapterLast"), (Names{kDevice1, kAdapter1, kProperties}));
    EXPECT_EQ(interfaces(objects, "/org/bluez/hci0/dev_Twice"), (Names{kDevice1, kDevice1, kProperties}));
    EXPECT_EQ(interfaces(objects, "/org/bluez/hci0/dev_Empty"), Names{});
    EXPECT_FALSE(client().property("/org/bluez/hci0/dev_NoAddress", kDevice1, "Address"));
    EXPECT_EQ(client().property("/org/bluez/hci4", kAdapter1, "Address"), Value::uint32(5));
}

TEST_F(Objects, LoadTellsWhatGoesAndWhatComes) {
    load("headset");
    client().catchUp();
    const auto told = client().told(kHci1);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_TRUE(told[0].starts_with("InterfacesRemoved"));
    ASSERT_EQ(client().told(kHci0).size(), 2U);
    EXPECT_TRUE(client().told(kHci0)[1].starts_with("InterfacesAdded"));
}

class Thousand : public Objects {
protected:
    Thousand() : Objects("thousand") {}
};

TEST_F(Thousand, AreListedAndRead) {
    EXPECT_EQ(managed().elements().size(), 1002U);
    EXPECT_EQ(client().property("/org/bluez/hci0/dev_5C_F3_70_00_03_E8", kDevice1, "Alias"), text("Headset 1000"));
}

}  // namespace

}  // namespace SimulatorTests
