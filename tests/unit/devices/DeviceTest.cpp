#include "tests/unit/devices/World.h"

namespace UnitTest {
namespace {

class DeviceTest : public World {
protected:
    using Records = std::vector<std::string>;

    std::vector<std::string> propertyReads() const {
        std::vector<std::string> reads;
        for (const FakePeer::Call& call : bluez_.calls()) {
            if (call.interface == kProperties) reads.push_back(call.text());
        }
        return reads;
    }
};

TEST_F(DeviceTest, ReadsAliasPairedAndClassInThisOrder) {
    describe(kPath, "Living room", false, 0x5A020C);
    const Ref<Device> device = makeDevice();
    EXPECT_EQ(viewOf(device->getPath()), kPath);
    EXPECT_EQ(viewOf(device->getAddress()), kAddress);
    EXPECT_EQ(viewOf(device->getName()), "Living room");
    EXPECT_EQ(device->getPairingState(), PairingState::Unpaired);
    EXPECT_EQ(device->getClassOfDevice(), 0x5A020Cu);
    const std::string get = std::string(kPath) + " org.freedesktop.DBus.Properties.Get(\"org.bluez.Device1\", ";
    EXPECT_EQ(propertyReads(), (Records{get + "\"Alias\")", get + "\"Paired\")", get + "\"Class\")"}));
    EXPECT_EQ(log_.records(), Records{});
}

TEST_F(DeviceTest, StartsPairedWhereBluezSaysSo) {
    EXPECT_EQ(makePaired()->getPairingState(), PairingState::Paired);
}

TEST_F(DeviceTest, ReadsNoProfilesWhenItIsMade) {
    offer(kPath, {"0000110b-0000-1000-8000-00805f9b34fb"});
    EXPECT_EQ(makePaired()->profileCount(), 0u);
    EXPECT_EQ(propertyReads().size(), 3u);
}

TEST_F(DeviceTest, WhoseAliasCannotBeReadIsNamedGenericDevice) {
    describe(kPath, "x", true, 0x540);
    bluez_.removeProperty(kPath, kDeviceInterface, "Alias");
    const Ref<Device> device = makeDevice();
    EXPECT_EQ(viewOf(device->getName()), "GenericDevice");
    EXPECT_EQ(device->getPairingState(), PairingState::Paired);
    EXPECT_EQ(device->getClassOfDevice(), 0x540u);
    EXPECT_EQ(log_.records(), Records{std::string("3 Could not obtain alias of device ") + kPath});
}

TEST_F(DeviceTest, WhosePairedCannotBeReadCountsAsUnpaired) {
    describe(kPath, "Keyboard", true, 0x540);
    bluez_.removeProperty(kPath, kDeviceInterface, "Paired");
    const Ref<Device> device = makeDevice();
    EXPECT_EQ(device->getPairingState(), PairingState::Unpaired);
    EXPECT_EQ(viewOf(device->getName()), "Keyboard");
    EXPECT_EQ(log_.records(),
              Records{std::string("3 Could not determine pairing status, assume unpaired for ") + kPath});
}

TEST_F(DeviceTest, WhoseClassCannotBeReadHasClassZero) {
    describe(kPath, "Keyboard", false, 0x540);
    bluez_.removeProperty(kPath, kDeviceInterface, "Class");
    EXPECT_EQ(makeDevice()->getClassOfDevice(), 0u);
    EXPECT_EQ(log_.records(), Records{std::string("3 Could not read BT classes for device ") + kPath});
}

TEST_F(DeviceTest, IsBuiltWithEveryDefaultWhenNothingCanBeRead) {
    const Ref<Device> device = makeDevice();
    EXPECT_EQ(viewOf(device->getName()), "GenericDevice");
    EXPECT_EQ(device->getPairingState(), PairingState::Unpaired);
    EXPECT_EQ(device->getClassOfDevice(), 0u);
    EXPECT_EQ(log_.records(),
              (Records{std::string("3 Could not obtain alias of device ") + kPath,
                       std::string("3 Could not determine pairing status, assume unpaired for ") + kPath,
                       std::string("3 Could not read BT classes for device ") + kPath}));
}

TEST_F(DeviceTest, TakesAPropertyOfTheWrongTypeForUnreadable) {
    bluez_.setProperty(kPath, kDeviceInterface, "Alias", std::uint32_t{7});
    bluez_.setProperty(kPath, kDeviceInterface, "Paired", std::uint32_t{1});
    bluez_.setProperty(kPath, kDeviceInterface, "Class", "0x540");
    const Ref<Device> device = makeDevice();
    EXPECT_EQ(viewOf(device->getName()), "GenericDevice");
    EXPECT_EQ(device->getPairingState(), PairingState::Unpaired);
    EXPECT_EQ(device->getClassOfDevice(), 0u);
    EXPECT_EQ(log_.records().size(), 3u);
}

TEST_F(DeviceTest, TakesAnObjectPathOrAListForNoAlias) {
    describe(kPath, "x", false, 0);
    bluez_.setProperty(kPath, kDeviceInterface, "Alias", ObjectPath{"/alias"});
    EXPECT_EQ(viewOf(makeDevice()->getName()), "GenericDevice");
    bluez_.setProperty(kPath, kDeviceInterface, "Alias", std::vector<std::string>{"alias"});
    EXPECT_EQ(viewOf(makeDevice()->getName()), "GenericDevice");
}

TEST_F(DeviceTest, DoesNothingOnTheBusOnceTheServiceIsGone) {
    describe(kPath, "Keyboard", false, 0x540);
    Ref<Device> device = makeDevice();
    endService();
    bluez_.forgetCalls();
    log_.forget();
    EXPECT_EQ(device->pair(1000).first, -1);
    EXPECT_EQ(device->waitPaired(0), ResultCode::kNothingToWaitFor);
    EXPECT_EQ(device->unpair(), ResultCode::kFailure);
    EXPECT_FALSE(DeviceProbe::setPairingState(*device, PairingState::Paired));
    EXPECT_EQ(DeviceProbe::removeDevice(*device), ResultCode::kSuccess);
    EXPECT_EQ(device->getPairingState(), PairingState::Unpaired);
    EXPECT_TRUE(goesAway(device));
    EXPECT_EQ(bluez_.calls().size(), 0u);
    EXPECT_EQ(log_.records(), Records{});
}

}  // namespace
}  // namespace UnitTest
