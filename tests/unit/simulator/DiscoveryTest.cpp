#include "tests/unit/simulator/SimulatorTest.h"

namespace SimulatorTests {

namespace {

using namespace Simulator;
using testing::Test;

class Discovery : public SimulatorTest {
protected:
    Outcome start(Client& who, const char* adapter = kHci0) { return who.call(adapter, kAdapter1, "StartDiscovery"); }
    Outcome stop(Client& who, const char* adapter = kHci0) { return who.call(adapter, kAdapter1, "StopDiscovery"); }
    bool isDiscovering(const char* adapter = kHci0) {
        const auto value = client().property(adapter, kAdapter1, "Discovering");
        return value && value->isTrue();
    }
    std::string putInRange(const char* address, const char* model, std::uint32_t foundAfter) {
        return client()
            .control("PutInRange", {path(kHci0), text(address), text(model), Value::uint32(foundAfter), noProperties()})
            .at(0)
            .text();
    }
    bool isShown(const std::string& device) { return client().property(device, kDevice1, "Connected").has_value(); }
};

TEST_F(Discovery, TurnsTheFlagOnAndOffAndTellsItAfterTheAnswers) {
    EXPECT_TRUE(start(client()).isOk());
    EXPECT_TRUE(isDiscovering());
    EXPECT_FALSE(isDiscovering(kHci1));
    EXPECT_TRUE(stop(client()).isOk());
    EXPECT_FALSE(isDiscovering());
    client().catchUp();
    EXPECT_EQ(client().told(kHci0), (std::vector<std::string>{
                                        "PropertiesChanged(\"org.bluez.Adapter1\", {\"Discovering\": b:true}, [])",
                                        "PropertiesChanged(\"org.bluez.Adapter1\", {\"Discovering\": b:false}, [])",
                                    }));
}

TEST_F(Discovery, CannotBeStoppedByOneWhoDidNotStartIt) {
    const auto none = stop(client());
    EXPECT_EQ(none.errorName, "org.bluez.Error.Failed");
    EXPECT_EQ(none.errorText, "No discovery started");
    Client other;
    EXPECT_TRUE(start(other).isOk());
    EXPECT_EQ(stop(client()).errorName, "org.bluez.Error.Failed");
    EXPECT_TRUE(isDiscovering());
}

TEST_F(Discovery, CannotBeStartedTwiceByOneClient) {
    EXPECT_TRUE(start(client()).isOk());
    const auto again = start(client());
    EXPECT_EQ(again.errorName, "org.bluez.Error.InProgress");
    EXPECT_EQ(again.errorText, "Operation already in progress");
    EXPECT_TRUE(start(client(), kHci1).isOk());
}

TEST_F(Discovery, GoesOnUntilTheLastOfItsClientsStopsIt) {
    Client other;
    EXPECT_TRUE(start(client()).isOk());
    EXPECT_TRUE(start(other).isOk());
    EXPECT_TRUE(stop(client()).isOk());
    EXPECT_TRUE(isDiscovering());
    EXPECT_TRUE(stop(other).isOk());
    EXPECT_FALSE(isDiscovering());
}

TEST_F(Discovery, EndsWhenItsClientLeavesTheBus) {
    auto other = std::make_unique<Client>();
    EXPECT_TRUE(start(*other).isOk());
    EXPECT_TRUE(isDiscovering());
    other.reset();
    EXPECT_TRUE(client().waitFor([&] { return !isDiscovering(); }));
}

TEST_F(Discovery, NeedsPower) {
    client().control("SetPowered", {path(kHci0), Value::boolean(false)});
    for (const auto& outcome :
         {start(client()), stop(client()), client().call(kHci0, kAdapter1, "SetDiscoveryFilter", {dictionary({})})}) {
        EXPECT_EQ(outcome.errorName, "org.bluez.Error.NotReady");
        EXPECT_EQ(outcome.errorText, "Resource Not Ready");
    }
    client().control("SetPowered", {path(kHci0), Value::boolean(true)});
    EXPECT_TRUE(start(client()).isOk());
}

TEST_F(Discovery, EndsWhenThePowerGoesAndHasToBeStartedAnew) {
    EXPECT_TRUE(start(client()).isOk());
    EXPECT_TRUE(
        client()
            .call(kHci0, kProperties, "Set", {text(kAdapter1), text("Powered"), Value::variant(Value::boolean(false))})
            .isOk());
    client().catchUp();
    EXPECT_EQ(client().told(kHci0).back(),
              "PropertiesChanged(\"org.bluez.Adapter1\", {\"Powered\": b:false, \"Discovering\": b:false}, [])");
    client().control("SetPowered", {path(kHci0), Value::boolean(true)});
    EXPECT_EQ(stop(client()).errorName, "org.bluez.Error.Failed");
    EXPECT_FALSE(isDiscovering());
}

TEST_F(Discovery, PowerComesByItselfInTheScenarioThatSaysSo) {
    client().control("Load", {text("not-ready")});
    EXPECT_EQ(start(client()).errorName, "org.bluez.Error.NotReady");
    EXPECT_TRUE(client().waitFor([&] { return start(client()).isOk(); }));
}

TEST_F(Discovery, FindsWhatIsInRangeAfterItsTimeWithAllProperties) {
    const auto late = putInRange("00:00:00:00:00:02", "headset", 60);
    const auto early = putInRange("00:00:00:00:00:01", "keyboard", 10);
    EXPECT_FALSE(isShown(early));
    EXPECT_TRUE(start(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return !client().told(late).empty(); }));
    ASSERT_FALSE(client().told(early).empty());
    const auto& signal = client().signals.at(1);
    ASSERT_EQ(signal.member, "InterfacesAdded");
    EXPECT_EQ(signal.arguments.at(0).text(), early);
    const auto& interfaces = signal.arguments.at(1).elements();
    ASSERT_EQ(interfaces.size(), 3U);
    EXPECT_EQ(interfaces[0].elements()[0].text(), "org.freedesktop.DBus.Introspectable");
    EXPECT_EQ(interfaces[1].elements()[0].text(), kDevice1);
    EXPECT_EQ(interfaces[2].elements()[0].text(), kProperties);
    const auto values = namedValues(interfaces[1].elements()[1]);
    for (const char* name : {"Address", "Alias", "Class", "Paired", "UUIDs", "Adapter", "RSSI", "Connected"}) {
        EXPECT_NE(find(values, name), nullptr) << name;
    }
    EXPECT_EQ(find(values, "Address")->text(), "00:00:00:00:00:01");
    EXPECT_EQ(find(values, "Adapter")->text(), kHci0);
}

TEST_F(Discovery, TellsOtherSignalStrengthsWhileItLastsAndNoneAfterwards) {
    tune("seen-every", 5);
    const auto found = putInRange("00:00:00:00:00:01", "headset", 0);
    EXPECT_TRUE(start(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return client().told(found).size() > 5; }));
    for (std::size_t index = 1; index < client().told(found).size(); ++index) {
        EXPECT_TRUE(client().told(found)[index].starts_with("PropertiesChanged(\"org.bluez.Device1\", {\"RSSI\": n:-"));
    }
    EXPECT_TRUE(stop(client()).isOk());
    client().catchUp();
    EXPECT_EQ(client().told(found).back(), "PropertiesChanged(\"org.bluez.Device1\", {}, [\"TxPower\", \"RSSI\"])");
    EXPECT_FALSE(client().property(found, kDevice1, "RSSI"));
}

TEST_F(Discovery, ForgetsWhatItSeesNoMore) {
    tune("forget-after", 30);
    const auto found = putInRange("00:00:00:00:00:01", "headset", 0);
    EXPECT_TRUE(start(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return isShown(found); }));
    EXPECT_TRUE(stop(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return !isShown(found); }));
    client().catchUp();
    EXPECT_EQ(client().told(found).back(),
              "InterfacesRemoved(\"" + found +
                  "\", [\"org.freedesktop.DBus.Properties\", \"org.freedesktop.DBus.Introspectable\", "
                  "\"org.bluez.Device1\"])");
    // The next inquiry finds it again.
    EXPECT_TRUE(start(client()).isOk());
    EXPECT_TRUE(client().waitFor([&] { return isShown(found); }));
}

TEST_F(Discovery, KeepsWhatIsPairedWhenItSeesItNoMore) {
    tune("forget-after", 30);
    const auto paired = putInRange("00:00:00:00:00:01", "headset", 0);
    const auto found = putInRange("00:00:00:00:00:02", "headset", 0);
    EXPECT_TRUE(start(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return isShown(paired) && isShown(found); }));
    EXPECT_TRUE(client().call(paired, kDevice1, "Pair").isOk());
    EXPECT_TRUE(stop(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return !isShown(found); }));
    EXPECT_TRUE(isShown(paired));
}

TEST_F(Discovery, PowerOffForgetsWhatIsOnlyFoundAndKeepsWhatIsKnown) {
    const auto known = device("headset");
    const auto found = putInRange("00:00:00:00:01:01", "headset", 0);
    EXPECT_TRUE(start(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return isShown(found); }));
    client().control("SetPowered", {path(kHci0), Value::boolean(false)});
    EXPECT_FALSE(isShown(found));
    EXPECT_TRUE(isShown(known));
}

TEST_F(Discovery, ADeviceThatIsRemovedIsFoundAgainWhileItLasts) {
    tune("seen-every", 20);
    const auto found = putInRange("00:00:00:00:00:01", "headset", 0);
    EXPECT_TRUE(start(client()).isOk());
    ASSERT_TRUE(client().waitFor([&] { return isShown(found); }));
    EXPECT_TRUE(client().call(kHci0, kAdapter1, "RemoveDevice", {path(found)}).isOk());
    EXPECT_TRUE(client().waitFor([&] { return isShown(found); }));
}

TEST_F(Discovery, ADeviceOffTheAirIsNotFound) {
    const auto gone = putInRange("00:00:00:00:00:01", "headset", 0);
    const auto there = putInRange("00:00:00:00:00:02", "headset", 10);
    client().control("RemoveDevice", {path(gone)});
    EXPECT_TRUE(start(client()).isOk());
    EXPECT_TRUE(client().waitFor([&] { return isShown(there); }));
    EXPECT_FALSE(isShown(gone));
}

TEST_F(Discovery, ListsItsFilters) {
    EXPECT_TRUE(client().call(kHci0, kAdapter1, "SetDiscoveryFilter", {dictionary({})}).isOk());
    const auto filters = client().call(kHci0, kAdapter1, "GetDiscoveryFilters");
    ASSERT_TRUE(filters.isOk());
    EXPECT_EQ(filters.results.at(0).signature(), "as");
}

}  // namespace

}  // namespace SimulatorTests
