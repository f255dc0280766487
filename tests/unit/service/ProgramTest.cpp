#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/unit/service/ServiceProcess.h"
#include "tests/unit/support/FakeBluez.h"
#include "tests/unit/support/NodeClient.h"
#include "tests/unit/support/NodeRoot.h"
#include "tests/unit/support/PrivateBus.h"

namespace UnitTest {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr const char* kRunning = "1 Service successfully initialized";

class Program : public ::testing::Test {
protected:
    PrivateBus bus_;
    FakeBluez bluez_;
};

TEST_F(Program, StopEndsItWithCode0) {
    ServiceProcess service;
    ASSERT_TRUE(service.waitForRecord(kRunning));
    EXPECT_THAT(NodeClient("bluetooth/service").execute("STOP"), HasSubstr("STOP"));
    EXPECT_EQ(service.waitForEnd(), 0);
    EXPECT_THAT(service.records(), Contains("1 Service terminate requested"));
    EXPECT_THAT(service.records(), Contains("1 Service terminated"));
    EXPECT_FALSE(std::filesystem::exists(nodeRoot() + "/bluetooth"));
}

TEST_F(Program, NamesItselfAndItsThreadInTheLog) {
    ServiceProcess service;
    ASSERT_TRUE(service.waitForRecord(kRunning));
    const std::string output = service.output();
    EXPECT_THAT(output.substr(0, output.find('\n')),
                MatchesRegex("[0-9-]+T[0-9:.]+Z \\[1\\] Bluetooth/Main ServiceBluetoothLinux: Initializing service"));
    service.signal(SIGTERM);
    EXPECT_EQ(service.waitForEnd(), 0);
}

TEST_F(Program, ASignalReachesItAsAStop) {
    for (const int number : {SIGTERM, SIGINT}) {
        ServiceProcess service;
        ASSERT_TRUE(service.waitForRecord(kRunning));
        service.signal(number);
        EXPECT_EQ(service.waitForEnd(), 0);
        EXPECT_THAT(service.records(), Contains("1 Service terminate requested"));
        EXPECT_THAT(service.records(), Contains("1 Service terminated"));
    }
}

TEST_F(Program, ASignalRightAfterTheFirstLogLineEndsItWithCode0) {
    for (int round = 0; round < 10; ++round) {
        ServiceProcess service;
        ASSERT_TRUE(waitUntil([&] { return !service.records().empty(); }));
        service.signal(SIGTERM);
        EXPECT_EQ(service.waitForEnd(), 0);
        EXPECT_FALSE(std::filesystem::exists(nodeRoot() + "/bluetooth"));
    }
}

TEST_F(Program, ASignalEndsItAlsoWhenSomethingElseIsInTheServiceNodesPlace) {
    std::filesystem::create_directories(nodeRoot() + "/bluetooth");
    const std::string foreign = nodeRoot() + "/bluetooth/service";
    std::ofstream(foreign) << "not a node";
    {
        ServiceProcess service;
        ASSERT_TRUE(service.waitForRecord(kRunning));
        service.signal(SIGTERM);
        EXPECT_EQ(service.waitForEnd(), 0);
        EXPECT_THAT(service.records(), Contains("1 Service terminate requested"));
        EXPECT_THAT(service.records(), Contains("1 Service terminated"));
    }
    EXPECT_TRUE(std::filesystem::remove(foreign)) << "it stays";
    std::filesystem::remove(nodeRoot() + "/bluetooth");
}

/// Calls of the start that BlueZ may leave unanswered.
class ProgramStart : public Program, public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(ProgramStart, IsEndedByASignalWithCode0) {
    const auto& [interface, member] = GetParam();
    bluez_.addAdapter("/org/bluez/unit0", "00:1A:7D:DA:71:13");
    bluez_->on(interface, member, FakePeer::silent());
    ServiceProcess service;
    ASSERT_TRUE(bluez_->waitForCalls(interface, member));
    service.signal(SIGTERM);
    // A property read that nothing ends takes 25 s, more than this waits.
    EXPECT_EQ(service.waitForEnd(), 0);
    EXPECT_FALSE(std::filesystem::exists(nodeRoot() + "/bluetooth"));
}

INSTANTIATE_TEST_SUITE_P(StuckIn, ProgramStart,
                         ::testing::Values(std::pair(FakeBluez::kManager, "GetManagedObjects"),
                                           std::pair(FakeBluez::kProperties, "Get"),
                                           std::pair(FakeBluez::kAgentManager, "RegisterAgent")),
                         [](const auto& call) { return std::string(call.param.second); });

TEST_F(Program, TheLossOfTheBusEndsItWithCode0) {
    ServiceProcess service;
    ASSERT_TRUE(service.waitForRecord(kRunning));
    bus_.kill();
    EXPECT_EQ(service.waitForEnd(), 0);
    EXPECT_THAT(service.records(), Contains("3 Connection lost, service terminated"));
    EXPECT_FALSE(std::filesystem::exists(nodeRoot() + "/bluetooth"));
}

TEST_F(Program, WithoutABusItEndsWithCode1) {
    ServiceProcess service(ServiceProcess::Environment{{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket"}});
    EXPECT_EQ(service.waitForEnd(), 1);
    EXPECT_THAT(service.records(),
                ElementsAre(StartsWith("4 Could not create connection: "), "4 Could not create service"));
    EXPECT_FALSE(std::filesystem::exists(nodeRoot() + "/bluetooth"));
}

TEST_F(Program, WithoutBluezItEndsWithCode1) {
    bluez_->on(
        FakeBluez::kManager, "GetManagedObjects",
        FakePeer::fails(DBUS_ERROR_SERVICE_UNKNOWN, "The name org.bluez was not provided by any .service files"));
    ServiceProcess service;
    EXPECT_EQ(service.waitForEnd(), 1);
    EXPECT_THAT(service.records(),
                Contains("4 Failed to obtain managed objects: The name org.bluez was not provided by "
                         "any .service files"));
    EXPECT_THAT(service.records(), Contains("4 Could not initialize service"));
}

TEST_F(Program, ASecondInstanceIsRefusedAndTheFirstNotDisturbed) {
    ServiceProcess first;
    ASSERT_TRUE(first.waitForRecord(kRunning));
    ServiceProcess second;
    EXPECT_EQ(second.waitForEnd(), 1);
    EXPECT_THAT(second.records(), ElementsAre("4 Could not create service"));
    EXPECT_THAT(second.output(), HasSubstr(nodeRoot())) << "says where";
    EXPECT_TRUE(isPublished("bluetooth/service"));
    EXPECT_THAT(NodeClient("bluetooth/service").execute("STOP"), HasSubstr("STOP"));
    EXPECT_EQ(first.waitForEnd(), 0);
}

TEST_F(Program, AfterAKillTheNextInstanceIsBack) {
    {
        ServiceProcess killed;
        ASSERT_TRUE(killed.waitForRecord(kRunning));
        killed.signal(SIGKILL);
        ASSERT_EQ(killed.waitForEnd(), -SIGKILL);
        EXPECT_TRUE(isPublished("bluetooth/service")) << "left behind";
    }
    ServiceProcess next;
    ASSERT_TRUE(next.waitForRecord(kRunning));
    EXPECT_THAT(NodeClient("bluetooth/master").execute("INQUIRY_START"), HasSubstr("33859"));
    EXPECT_THAT(NodeClient("bluetooth/service").execute("STOP"), HasSubstr("STOP"));
    EXPECT_EQ(next.waitForEnd(), 0);
}

TEST_F(Program, TheThresholdOfTheEnvironmentHidesTheLowerLevels) {
    ServiceProcess service(ServiceProcess::Environment{{"SYSLOG_LEVEL", "2"}});
    ASSERT_TRUE(waitUntil([] { return isPublished("bluetooth/service"); }));
    EXPECT_THAT(NodeClient("bluetooth/service").execute("STOP"), HasSubstr("STOP"));
    EXPECT_EQ(service.waitForEnd(), 0);
    EXPECT_THAT(service.records(), ElementsAre("3 Failed to de-register authentication agent: no agent given"));
}

TEST_F(Program, ARootThatCannotBeUsedEndsItWithCode1) {
    ServiceProcess service(ServiceProcess::Environment{{"NODE_ROOT", "/dev/null/nodes"}});
    EXPECT_EQ(service.waitForEnd(), 1);
    EXPECT_THAT(service.output(), HasSubstr("/dev/null/nodes"));
}

}  // namespace
}  // namespace UnitTest
