#include <algorithm>
#include <chrono>

#include "platform/host/SysLog.h"
#include "tests/unit/service/ServiceFixture.h"
#include "tests/unit/support/BusMonitor.h"
#include "tests/unit/support/NodeClient.h"

namespace UnitTest {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Lt;
using ::testing::StartsWith;

constexpr const char* kDeregistered = "3 Failed to de-register authentication agent: no agent given";

class Lifecycle : public WithService {
protected:
    void expectNotInitialised() {
        service_.emplace();
        ASSERT_EQ(service_->start(), RunningService::Start::NotInitialised);
        ASSERT_TRUE(service_->waitForEnd());
        EXPECT_THAT(publishedNodes(), IsEmpty());
    }
};

TEST_F(Lifecycle, LogsEachStepOfTheStartAndTheEnd) {
    start();
    service_->stop();
    EXPECT_THAT(log_.records(),
                ElementsAre("1 Initializing service", "1 Searching for existing adapters and devices",
                            "1 Adapters/devices filter successfully installed",
                            "1 Authentication agent successfully registered", "1 Service successfully initialized",
                            "1 Service terminated", kDeregistered));
}

TEST_F(Lifecycle, MakesItsBusCallsInThisOrder) {
    BusMonitor monitor(PrivateBus::address());
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    start();
    service_->stop();
    ASSERT_TRUE(monitor.waitFor("org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent()"));
    EXPECT_THAT(
        monitor.calls(),
        ElementsAre(
            "org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.Hello()",
            "org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects()",
            "org.bluez /org/bluez/unit0 org.freedesktop.DBus.Properties.Get(\"org.bluez.Adapter1\", \"Address\")",
            "org.bluez /org/bluez/unit0 org.freedesktop.DBus.Properties.Get(\"org.bluez.Adapter1\", \"Discovering\")",
            "org.bluez /org/bluez/unit0 org.freedesktop.DBus.Properties.Get(\"org.bluez.Adapter1\", \"Name\")",
            "org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.AddMatch("
            "\"type='signal',path='/',interface='org.freedesktop.DBus.ObjectManager'\")",
            "org.bluez /org/bluez org.bluez.AgentManager1.RegisterAgent(/com/kelvo/bluetooth/service, "
            "\"NoInputNoOutput\")",
            "org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent()"));
}

TEST_F(Lifecycle, PublishesNodesWhileItRunsAndNoneAfterwards) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_.addObject(kDevicePath, {{FakeBluez::kDevice, {{"Address", kDeviceAddress}}}});
    start();
    EXPECT_THAT(publishedNodes(), ElementsAre(kAdapterNode, kDeviceNode, "bluetooth/master", "bluetooth/service"));
    service_->stop();
    EXPECT_THAT(publishedNodes(), IsEmpty());
}

TEST_F(Lifecycle, AStopEndsAQuietServiceAtOnce) {
    // A loop that only noticed the stop after its wait would take 500 ms each time, however busy the machine is.
    constexpr auto kLess = 450ms;
    auto shortest = steady_clock::duration::max();
    for (int round = 0; round < 20 && shortest >= kLess; ++round) {
        start();
        const auto begin = steady_clock::now();
        service_->stop();
        shortest = std::min(shortest, steady_clock::now() - begin);
    }
    EXPECT_THAT(shortest, Lt(kLess));
}

TEST_F(Lifecycle, TwoStopsAreOne) {
    start();
    service_->requestStop();
    service_->stop();
    EXPECT_EQ(log_.count("1 Service terminated"), 1u);
}

TEST_F(Lifecycle, StartsAgainAfterAnEnd) {
    for (int round = 0; round < 3; ++round) {
        log_.forget();
        start();
        EXPECT_TRUE(isPublished("bluetooth/service"));
        service_->stop();
        EXPECT_EQ(log_.count("1 Service terminated"), 1u);
    }
}

TEST_F(Lifecycle, TheLossOfTheBusEndsItWithoutAnError) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    start();
    log_.forget();
    bus_.kill();
    ASSERT_TRUE(service_->waitForEnd());
    EXPECT_THAT(publishedNodes(), IsEmpty());
    EXPECT_THAT(log_.records(), ElementsAre("3 Connection lost, service terminated",
                                            StartsWith("3 Failed to de-register authentication agent: ")));
}

TEST_F(Lifecycle, TheLossOfTheBusEndsBlockedRequests) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_->on(FakeBluez::kAdapter, "StartDiscovery", bluez_->holds());
    start();
    NodeClient client(kAdapterNode);
    client.sendExecute("INQUIRY_START");
    client.sendExecute("INQUIRY_STOP");  // its turn comes after that
    ASSERT_TRUE(bluez_->takeHeld());
    bus_.kill();
    EXPECT_TRUE(service_->waitForEnd());
    EXPECT_EQ(client.receive(), "") << "closed unanswered";
    EXPECT_EQ(log_.count("4 /org/bluez/unit0: failed to start/stop discovery: org.freedesktop.DBus.Error.Disconnected, "
                         "Connection was disconnected before a reply was received"),
              1u);
}

TEST_F(Lifecycle, AStopEndsBlockedRequestsAndAnswersItsOwn) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_->on(FakeBluez::kAdapter, "StartDiscovery", bluez_->holds());
    start();
    NodeClient client(kAdapterNode);
    client.sendExecute("INQUIRY_START");
    ASSERT_TRUE(bluez_->takeHeld());
    EXPECT_THAT(NodeClient("bluetooth/service").execute("STOP"), HasSubstr("STOP"));
    EXPECT_TRUE(service_->waitForEnd());
    EXPECT_EQ(client.receive(), "") << "closed unanswered";
}

TEST_F(Lifecycle, WithoutABusItIsNotCreated) {
    bus_.kill();
    service_.emplace();
    EXPECT_EQ(service_->start(), RunningService::Start::NotCreated);
    EXPECT_THAT(log_.records(), ElementsAre(StartsWith("4 Could not create connection: ")));
    service_.reset();

    // Nothing of the failed start stands in the way of the next.
    PrivateBus bus;
    FakeBluez bluez;
    log_.forget();
    start();
    service_->stop();
    EXPECT_EQ(log_.count("1 Service successfully initialized"), 1u);
}

TEST_F(Lifecycle, FailsWhenBluezRefusesItsObjects) {
    bluez_->on(FakeBluez::kManager, "GetManagedObjects", FakePeer::fails("org.bluez.Error.Failed", "not today"));
    expectNotInitialised();
    EXPECT_THAT(log_.records(), ElementsAre("1 Initializing service", "1 Searching for existing adapters and devices",
                                            "4 Failed to obtain managed objects: not today", kDeregistered));
}

TEST_F(Lifecycle, WaitsOneSecondForBluezsObjects) {
    bluez_->on(FakeBluez::kManager, "GetManagedObjects", FakePeer::silent());
    const auto begin = steady_clock::now();
    expectNotInitialised();
    EXPECT_THAT(steady_clock::now() - begin, AllOf(Ge(1000ms), Lt(10s)));
    EXPECT_THAT(log_.records(), Contains(StartsWith("4 Failed to obtain managed objects: ")));
}

TEST_F(Lifecycle, FailsWhenTheAgentCannotBeRegisteredAndReleasesWhatItFound) {
    BusMonitor monitor(PrivateBus::address());
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_.addObject(kDevicePath, {{FakeBluez::kDevice, {{"Address", kDeviceAddress}}}});
    bluez_->on(FakeBluez::kAgentManager, "RegisterAgent",
               FakePeer::fails("org.bluez.Error.AlreadyExists", "Already Exists"));
    expectNotInitialised();
    EXPECT_THAT(log_.records(), Contains("1 Adapter added: /org/bluez/unit0"));
    EXPECT_THAT(log_.records(), Contains("4 Could not register agent: Already Exists"));
    EXPECT_EQ(log_.count("1 Service successfully initialized"), 0u);
    EXPECT_TRUE(monitor.waitFor("org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent()"));
}

TEST_F(Lifecycle, ARequestOnWhatAFailedStartFoundEndsWithIt) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_->on(FakeBluez::kAdapter, "StartDiscovery", bluez_->holds());
    std::unique_ptr<NodeClient> client;
    std::unique_ptr<FakePeer::Request> held;
    std::thread requesting;
    // BlueZ answers for the agent only once a client's request on the adapter is in progress.
    bluez_->on(FakeBluez::kAgentManager, "RegisterAgent", [&](const FakePeer::Request& request) {
        requesting = std::thread([&, request] {
            client = std::make_unique<NodeClient>(kAdapterNode);
            client->sendExecute("INQUIRY_START");
            held = bluez_->takeHeld();
            request.error("org.bluez.Error.Failed");
        });
    });
    expectNotInitialised();
    requesting.join();
    EXPECT_TRUE(held);
    EXPECT_EQ(client->receive(), "") << "closed unanswered";
}

TEST_F(Lifecycle, FailsWhenItsMatchRuleIsRefused) {
    bus_.kill();
    PrivateBus strict("<limit name=\"max_match_rules_per_connection\">0</limit>");
    FakeBluez bluez;
    expectNotInitialised();
    EXPECT_THAT(log_.records(), ElementsAre("1 Initializing service", "1 Searching for existing adapters and devices",
                                            StartsWith("4 Could not add match: "), kDeregistered));
}

TEST_F(Lifecycle, TheThresholdHidesTheLowerLevels) {
    SysLogFilter::setLevel(2);
    start();
    service_->stop();
    SysLogFilter::setLevel(0);
    EXPECT_THAT(log_.records(), ElementsAre(kDeregistered));
}

}  // namespace
}  // namespace UnitTest
