#include <chrono>
#include <future>

#include "platform/host/Interrupt.h"
#include "tests/unit/adapters/AdapterFixture.h"
#include "tests/unit/support/NodeClient.h"

namespace UnitTest {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kNode = "bluetooth/adapters/00:1A:7D:DA:71:13/adapter";
constexpr const char* kOtherNode = "bluetooth/adapters/00:1A:7D:DA:71:14/adapter";

class AdapterRegistry : public WithAdapters {
protected:
    /// Announces an adapter that the service does not know and waits until it has been added: what was announced before
    /// has been dispatched then.
    void settle() {
        bluez_.addAdapter("/org/bluez/unit9", "00:00:00:00:00:09");
        bluez_.announce("/org/bluez/unit9", {{FakeBluez::kAdapter, {}}});
        ASSERT_TRUE(log_.waitFor("1 Adapter added: /org/bluez/unit9"));
    }
    void onStart(FakePeer::Handler handler) { bluez_->on(FakeBluez::kAdapter, "StartDiscovery", std::move(handler)); }
    void onStop(FakePeer::Handler handler) { bluez_->on(FakeBluez::kAdapter, "StopDiscovery", std::move(handler)); }
};

TEST_F(AdapterRegistry, PublishesAnAdapterUnderItsAddress) {
    startWithAdapter();
    EXPECT_TRUE(isPublished(kNode));
    NodeClient client(kNode);
    EXPECT_THAT(client.call("Describe"), HasSubstr("LinuxBTAdapters"));
}

TEST_F(AdapterRegistry, ASecondAddOfAPathIsQuietAndLeavesOneNode) {
    startWithAdapter();
    bluez_->setProperty(kPath, FakeBluez::kAdapter, "Address", kOtherAddress);
    bluez_.announce(kPath, {{FakeBluez::kAdapter, {}}});
    settle();
    EXPECT_THAT(reads(), IsEmpty());
    EXPECT_THAT(log_.records(), ElementsAre("1 Adapter added: /org/bluez/unit9"));
    EXPECT_TRUE(isPublished(kNode));
    EXPECT_FALSE(isPublished(kOtherNode));
}

TEST_F(AdapterRegistry, ARemovalOfAnUnknownPathIsQuiet) {
    startWithAdapter();
    bluez_.withdraw(kOtherPath, {FakeBluez::kAdapter});
    settle();
    EXPECT_THAT(log_.records(), ElementsAre("1 Adapter added: /org/bluez/unit9"));
    EXPECT_TRUE(isPublished(kNode));
}

TEST_F(AdapterRegistry, APathThatComesBackIsPublishedAgainUnderTheSameId) {
    startWithAdapter();
    for (int round = 0; round < 3; ++round) {
        log_.forget();
        bluez_.withdraw(kPath, {FakeBluez::kAdapter});
        ASSERT_TRUE(log_.waitFor("1 Adapter removed: /org/bluez/unit0"));
        EXPECT_TRUE(waitUntil([] { return !isPublished(kNode); }));
        EXPECT_FALSE(adapter());
        bluez_.announce(kPath, {{FakeBluez::kAdapter, {}}});
        ASSERT_TRUE(log_.waitFor("1 Adapter added: /org/bluez/unit0"));
        EXPECT_TRUE(isPublished(kNode));
        ASSERT_TRUE(adapter());
        EXPECT_EQ(adapter()->path()->view(), kPath);
    }
}

TEST_F(AdapterRegistry, ARequestOnOneOfTwoAdaptersNeverReachesTheOther) {
    startWithTwoAdapters();
    onStart(FakePeer::answers());
    EXPECT_TRUE(isPublished(kNode));
    EXPECT_TRUE(isPublished(kOtherNode));
    NodeClient client(kNode);
    NodeClient other(kOtherNode);
    EXPECT_THAT(client.call("Get", R"({"attribute":"ADDRESS"})"), HasSubstr(kAddress));
    EXPECT_THAT(other.call("Get", R"({"attribute":"ADDRESS"})"), HasSubstr(kOtherAddress));
    EXPECT_THAT(other.execute("INQUIRY_START"), HasSubstr("INQUIRY_START"));
    EXPECT_THAT(discoveryCalls(), ElementsAre("/org/bluez/unit1 StartDiscovery"));
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_TRUE(adapter(kOtherPath)->discovering());
}

TEST_F(AdapterRegistry, DiscoveryOnAllGoesByAscendingIdAndOnAfterAFailure) {
    startWithTwoAdapters();
    std::vector<std::string> order{kPath, kOtherPath};
    if (nodeIdOf(kPath) > nodeIdOf(kOtherPath)) std::swap(order[0], order[1]);
    onStart([first = order[0]](const FakePeer::Request& request) {
        if (request.call().path == first) {
            request.error("org.bluez.Error.Failed");
        } else {
            request.reply();
        }
    });
    EXPECT_TRUE(adapters().setDiscoveringAll(true));
    EXPECT_THAT(discoveryCalls(), ElementsAre(order[0] + " StartDiscovery", order[1] + " StartDiscovery"));
    EXPECT_FALSE(adapter(order[0])->discovering());
    EXPECT_TRUE(adapter(order[1])->discovering());
}

TEST_F(AdapterRegistry, DiscoveryOnAllFailsWhenEveryAdapterFails) {
    startWithTwoAdapters();
    onStart(FakePeer::fails("org.bluez.Error.Failed"));
    EXPECT_FALSE(adapters().setDiscoveringAll(true));
    EXPECT_EQ(discoveryCalls().size(), 2u);
}

TEST_F(AdapterRegistry, DiscoveryOnAllFailsWithoutAdapters) {
    start();
    EXPECT_FALSE(adapters().setDiscoveringAll(true));
    EXPECT_FALSE(adapters().setDiscoveringAll(false));
}

TEST_F(AdapterRegistry, StoppingAllSucceedsWhenNoneIsDiscovering) {
    startWithTwoAdapters();
    EXPECT_TRUE(adapters().setDiscoveringAll(false));
    EXPECT_THAT(discoveryCalls(), IsEmpty());
}

TEST_F(AdapterRegistry, OfTwoPathsWithOneAddressTheSecondHasNoNode) {
    bluez_.addAdapter(kPath, kAddress);
    bluez_.addAdapter(kOtherPath, kAddress);
    start();
    ASSERT_TRUE(adapter());
    ASSERT_TRUE(adapter(kOtherPath)) << "it is there for discovery on all adapters";
    NodeClient client(kNode);
    onStart(FakePeer::answers());
    client.execute("INQUIRY_START");
    EXPECT_THAT(discoveryCalls(), ElementsAre("/org/bluez/unit0 StartDiscovery"));
    bluez_.withdraw(kOtherPath, {FakeBluez::kAdapter});
    ASSERT_TRUE(log_.waitFor("1 Adapter removed: /org/bluez/unit1"));
    EXPECT_TRUE(isPublished(kNode)) << "the first adapter's node stays";
}

TEST_F(AdapterRegistry, AnAddressThatIsNoFoldersNameLeavesTheNodeOut) {
    const std::vector<std::string> addresses{"", ".", "..", "a/b", "../x", "with\nbreak", std::string(256, 'a')};
    for (std::size_t index = 0; index < addresses.size(); ++index) {
        bluez_.addAdapter("/org/bluez/odd" + std::to_string(index), addresses[index]);
    }
    bluez_.addAdapter(kPath, kAddress);
    start();
    EXPECT_THAT(publishedNodes(), ElementsAre(kNode, "bluetooth/master", "bluetooth/service"));
    for (std::size_t index = 0; index < addresses.size(); ++index) {
        const std::string path = "/org/bluez/odd" + std::to_string(index);
        EXPECT_TRUE(adapter(path)) << path;
        EXPECT_THAT(log_.records(), Contains("1 Adapter added: " + path));
        EXPECT_THAT(log_.records(), Contains(StartsWith("3 Could not publish adapter " + path)));
    }
}

TEST_F(AdapterRegistry, ALookupForALeavingClientEndsWithoutAnAdapter) {
    startWithAdapter();
    onStart(bluez_->holds());
    auto all = std::async(std::launch::async, [this] { return adapters().setDiscoveringAll(true); });
    const auto held = bluez_->takeHeld();  // from here on the monitor is taken
    ASSERT_TRUE(held);
    Interrupt interrupt;
    auto lookup = std::async(std::launch::async, [&] {
        const Interrupt::Bind bind(interrupt);
        return adapters().findAdapter(nodeIdOf(kPath)) != nullptr;
    });
    interrupt.raise(Interrupt::Level::HangUp);
    EXPECT_FALSE(lookup.get());
    held->reply();
    EXPECT_TRUE(all.get());
    EXPECT_TRUE(adapter());
}

TEST_F(AdapterRegistry, AnAdditionWaitsForADiscoveryOnAllAndIsNotLost) {
    startWithAdapter();
    onStart(bluez_->holds());
    auto all = std::async(std::launch::async, [this] { return adapters().setDiscoveringAll(true); });
    const auto held = bluez_->takeHeld();
    ASSERT_TRUE(held);
    bluez_.addAdapter(kOtherPath, kOtherAddress);
    bluez_.announce(kOtherPath, {{FakeBluez::kAdapter, {}}});
    bluez_->flush();
    held->reply();
    EXPECT_TRUE(all.get());
    EXPECT_TRUE(log_.waitFor("1 Adapter added: /org/bluez/unit1"));
}

TEST_F(AdapterRegistry, AStopEndsAnAdditionThatWaitsForADiscoveryOnAll) {
    startWithAdapter();
    onStart(bluez_->holds());
    NodeClient client("bluetooth/master");
    client.sendExecute("INQUIRY_START");
    ASSERT_TRUE(bluez_->takeHeld());
    bluez_.addAdapter(kOtherPath, kOtherAddress);
    bluez_.announce(kOtherPath, {{FakeBluez::kAdapter, {}}});
    bluez_->flush();
    EXPECT_THAT(NodeClient("bluetooth/service").execute("STOP"), HasSubstr("STOP"));
    EXPECT_TRUE(service_->waitForEnd());
    EXPECT_EQ(client.receive(), "") << "closed unanswered";
}

TEST_F(AdapterRegistry, AStopEndsAnAdditionThatWaitsForBluez) {
    startWithAdapter();
    bluez_->on(FakeBluez::kProperties, "Get", bluez_->holds());
    bluez_.announce(kOtherPath, {{FakeBluez::kAdapter, {}}});
    ASSERT_TRUE(bluez_->takeHeld());
    EXPECT_THAT(NodeClient("bluetooth/service").execute("STOP"), HasSubstr("STOP"));
    EXPECT_TRUE(service_->waitForEnd());
    EXPECT_THAT(log_.records(), Contains("4 Could not obtain address for adapter /org/bluez/unit1"));
    EXPECT_THAT(log_.records(), Contains("1 Service terminated"));
}

}  // namespace
}  // namespace UnitTest
