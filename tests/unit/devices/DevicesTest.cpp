#include "platform/host/Crc.h"
#include "tests/unit/devices/World.h"

namespace UnitTest {
namespace {

using Records = std::vector<std::string>;
using std::chrono::milliseconds;

class DevicesTest : public World {
protected:
    const std::string path_ = kPath;
    const std::string node_ = std::string("bluetooth/devices/") + kAddress + "/device";
    const std::string otherNode_ = std::string("bluetooth/devices/") + kOtherAddress + "/device";

    bool add(const std::string& path, const std::string& address) {
        describe(path, "Keyboard", false, 0x540);
        return service_->devices().addDevice(text(path), text(address), service_);
    }
    bool remove(const std::string& path) { return service_->devices().removeDevice(text(path)); }
    Ref<Device> find(const std::string& path) { return service_->devices().findDevice(nodeIdOf(path)); }
};

TEST_F(DevicesTest, PublishesADeviceUnderItsAddress) {
    EXPECT_TRUE(add(kPath, kAddress));
    EXPECT_TRUE(isPublished(node_));
    const Ref<Device> device = find(kPath);
    ASSERT_TRUE(device);
    EXPECT_EQ(viewOf(device->getPath()), kPath);
    EXPECT_EQ(viewOf(device->getAddress()), kAddress);
    EXPECT_EQ(log_.records(), Records{"1 Device added: " + path_});
}

TEST_F(DevicesTest, WatchesThePropertiesOfWhatItPublishes) {
    EXPECT_TRUE(add(kPath, kAddress));
    emitChanged(kPath, kDeviceInterface, {{"Alias", "Kitchen"}});
    settle();
    EXPECT_EQ(viewOf(find(kPath)->getName()), "Kitchen");
}

TEST_F(DevicesTest, UsesThePathsChecksumOf32BitsAsNodeId) {
    EXPECT_EQ(nodeIdOf("123456789"), 0xCBF43926u);  // the standard's check value
    EXPECT_TRUE(add(kPath, kAddress));
    EXPECT_EQ(nodeIdOf(kPath) >> 32, 0u);
    EXPECT_FALSE(service_->devices().findDevice(nodeIdOf(kPath) | 0x100000000u));
}

TEST_F(DevicesTest, RefusesASecondPathWithTheAddressOfAnExistingDevice) {
    EXPECT_TRUE(add(kPath, kAddress));
    log_.forget();
    bluez_.forgetCalls();
    EXPECT_FALSE(add(kOtherPath, kAddress));
    EXPECT_TRUE(isPublished(node_));
    EXPECT_FALSE(find(kOtherPath));
    EXPECT_TRUE(find(kPath));
    EXPECT_EQ(bluez_.calls().size(), 0u);
    EXPECT_EQ(log_.records(), Records{});
}

TEST_F(DevicesTest, RefusesTheSamePathAndAddressTwice) {
    EXPECT_TRUE(add(kPath, kAddress));
    const Ref<Device> first = find(kPath);
    EXPECT_FALSE(add(kPath, kAddress));
    EXPECT_EQ(find(kPath), first);
}

TEST_F(DevicesTest, TellsAddressesApartByCase) {
    EXPECT_TRUE(add(kPath, "aa:bb:cc:dd:ee:ff"));
    EXPECT_TRUE(add(kOtherPath, kOtherAddress));
    EXPECT_TRUE(isPublished(otherNode_));
    EXPECT_TRUE(isPublished("bluetooth/devices/aa:bb:cc:dd:ee:ff/device"));
}

TEST_F(DevicesTest, RemovesADeviceWithItsNode) {
    EXPECT_TRUE(add(kPath, kAddress));
    EXPECT_TRUE(add(kOtherPath, kOtherAddress));
    log_.forget();
    EXPECT_TRUE(remove(kPath));
    EXPECT_FALSE(isPublished(node_));
    EXPECT_FALSE(find(kPath));
    EXPECT_TRUE(isPublished(otherNode_));
    EXPECT_TRUE(find(kOtherPath));
    EXPECT_EQ(log_.records(), Records{"1 Device removed: " + path_});
}

TEST_F(DevicesTest, RemovesNothingForAPathItNeverHad) {
    EXPECT_TRUE(add(kPath, kAddress));
    log_.forget();
    EXPECT_FALSE(remove(kOtherPath));
    EXPECT_TRUE(remove(kPath));
    log_.forget();
    EXPECT_FALSE(remove(kPath));
    EXPECT_EQ(log_.records(), Records{});
}

TEST_F(DevicesTest, PublishesAgainUnderTheSameId) {
    EXPECT_TRUE(add(kPath, kAddress));
    const std::uint64_t id = nodeIdOf(kPath);
    EXPECT_TRUE(remove(kPath));
    EXPECT_FALSE(isPublished(node_));
    EXPECT_TRUE(add(kPath, kAddress));
    EXPECT_TRUE(isPublished(node_));
    EXPECT_TRUE(service_->devices().findDevice(id));
}

TEST_F(DevicesTest, DropsADeviceWhoseChecksumIsTaken) {
    const std::string one = "/org/bluez/hci0/dev_EA_CB_70_1C_DF_95";
    const std::string other = "/org/bluez/hci0/dev_7F_45_BE_10_B9_5A";
    ASSERT_EQ(nodeIdOf(one), nodeIdOf(other));
    EXPECT_TRUE(add(one, "EA:CB:70:1C:DF:95"));
    log_.forget();
    EXPECT_TRUE(add(other, "7F:45:BE:10:B9:5A"));
    EXPECT_EQ(log_.records(), Records{"1 Device added: " + other});
    EXPECT_FALSE(isPublished("bluetooth/devices/7F:45:BE:10:B9:5A/device"));
    EXPECT_TRUE(isPublished("bluetooth/devices/EA:CB:70:1C:DF:95/device"));
    EXPECT_EQ(viewOf(find(other)->getPath()), one);
    // Its property watch is gone as well: the first device's filter is the only one.
    emitChanged(other, kDeviceInterface, {{"Alias", "Second"}});
    settle();
    EXPECT_EQ(viewOf(find(one)->getName()), "Keyboard");
}

TEST_F(DevicesTest, KeepsADeviceWhoseAddressCannotBeANodesName) {
    for (const char* address : {"", ".", "..", "a/b", "/", "a\nb"}) {
        EXPECT_TRUE(add(kPath, address));
        EXPECT_TRUE(find(kPath)) << address;
        EXPECT_EQ(log_.records(),
                  (Records{"3 Could not publish device " + path_ + ": its address cannot be a node's name",
                           "1 Device added: " + path_}));
        EXPECT_TRUE(remove(kPath));
        log_.forget();
    }
    EXPECT_FALSE(isPublished("bluetooth/devices/device"));
}

TEST_F(DevicesTest, GivesADeviceBackToWhoeverHoldsIt) {
    EXPECT_TRUE(add(kPath, kAddress));
    Ref<Device> device = find(kPath);
    EXPECT_TRUE(remove(kPath));
    EXPECT_EQ(viewOf(device->getName()), "Keyboard");
    EXPECT_TRUE(goesAway(device));
}

TEST_F(DevicesTest, PublishesADeviceAgainWhileItsPredecessorIsStillInUse) {
    EXPECT_TRUE(add(kPath, kAddress));
    const Ref<Device> predecessor = find(kPath);
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(predecessor, &request);
    EXPECT_TRUE(remove(kPath));
    EXPECT_FALSE(isPublished(node_));
    EXPECT_TRUE(add(kPath, kAddress));
    EXPECT_TRUE(isPublished(node_));
    EXPECT_NE(find(kPath), predecessor);
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(request->answer(), Connected(-1, ""));
    EXPECT_TRUE(isPublished(node_));
}

TEST_F(DevicesTest, MakesRequestsWaitWhileADeviceIsBeingAdded) {
    EXPECT_TRUE(add(kPath, kAddress));
    bluez_.on(kProperties, "Get", bluez_.holds());
    Request<bool> adding([this] { return add(kOtherPath, kOtherAddress); });
    auto get = bluez_.takeHeld();
    ASSERT_TRUE(get);
    Request<bool> lookup([this] { return find(kPath) != nullptr; });
    Request<bool> hangsUp([this] { return find(kPath) == nullptr; });
    EXPECT_FALSE(lookup.answeredWithin(milliseconds(50)));
    hangsUp.interrupt(Level::HangUp);
    EXPECT_TRUE(hangsUp.answer());
    for (int property = 0; property < 3; ++property) {
        get->error("org.freedesktop.DBus.Error.InvalidArgs");
        if (property < 2) {
            get = bluez_.takeHeld();
            ASSERT_TRUE(get);
        }
    }
    EXPECT_TRUE(lookup.answer());
    EXPECT_TRUE(adding.answer());
}

TEST_F(DevicesTest, AddsAndRemovesWhileRequestsLookUp) {
    std::atomic<bool> ends{false};
    std::vector<std::unique_ptr<Request<bool>>> clients;
    for (int client = 0; client < 2; ++client) {
        clients.push_back(std::make_unique<Request<bool>>([&] {
            while (!ends) {
                if (const Ref<Device> device = find(kPath)) {
                    EXPECT_EQ(viewOf(device->getAddress()), kAddress);
                }
            }
            return true;
        }));
    }
    for (int round = 0; round < 200; ++round) {
        EXPECT_TRUE(add(kPath, kAddress));
        EXPECT_TRUE(remove(kPath));
    }
    ends = true;
    for (const auto& client : clients) EXPECT_TRUE(client->answer());
}

}  // namespace
}  // namespace UnitTest
