#include <chrono>

#include "tests/unit/agent/AgentFixture.h"

namespace UnitTest {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Lt;
using ::testing::StartsWith;

class AgentRegistration : public ::testing::Test {
protected:
    std::vector<std::string> calls() {
        std::vector<std::string> made;
        for (const FakePeer::Call& call : bluez_->calls()) made.push_back(call.text());
        return made;
    }

    PrivateBus bus_;
    FakeBluez bluez_;
    LogCapture log_;
    AuthenticationAgent agent_;
    Connection connection_;
};

TEST_F(AgentRegistration, NamesTheObjectAndTheCapability) {
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(agent_.registerAgent(connection_.get()));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(calls(), ElementsAre("/org/bluez org.bluez.AgentManager1.RegisterAgent("
                                     "/com/kelvo/bluetooth/service, \"NoInputNoOutput\")"));
    EXPECT_THAT(log_.records(), ElementsAre("1 Authentication agent successfully registered"));
}

TEST_F(AgentRegistration, FailsWhenTheObjectPathIsTaken) {
    static constexpr DBus::DBusObjectPathVTable table{
        nullptr, [](DBus::DBusConnection*, DBusMessage*, void*) { return DBUS_HANDLER_RESULT_HANDLED; }};
    ASSERT_TRUE(
        DBus::dbus_connection_try_register_object_path(connection_.get(), kAgentPath, &table, nullptr, nullptr));
    EXPECT_FALSE(agent_.registerAgent(connection_.get()));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_.records(), ElementsAre("4 Failed to register object: A handler is already registered for "
                                            "/com/kelvo/bluetooth/service"));
}

TEST_F(AgentRegistration, FailsWithBluezsMessage) {
    bluez_->on(FakeBluez::kAgentManager, "RegisterAgent",
               FakePeer::fails("org.bluez.Error.AlreadyExists", "Already Exists"));
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(agent_.registerAgent(connection_.get()));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "arguments to dbus_message_unref() were incorrect, assertion \"message != NULL\" failed\n");
    EXPECT_THAT(log_.records(), ElementsAre("4 Could not register agent: Already Exists"));
}

TEST_F(AgentRegistration, FailsAfterASecondWithoutAnAnswer) {
    bluez_->on(FakeBluez::kAgentManager, "RegisterAgent", FakePeer::silent());
    const auto begin = steady_clock::now();
    EXPECT_FALSE(agent_.registerAgent(connection_.get()));
    EXPECT_THAT(steady_clock::now() - begin, AllOf(Ge(1000ms), Lt(10s)));
    EXPECT_THAT(log_.records(), ElementsAre(StartsWith("4 Could not register agent: ")));
}

TEST_F(AgentRegistration, IsWithdrawnWithoutAnArgumentAndTheRefusalIsLogged) {
    agent_.unregisterAgent(connection_.get());
    EXPECT_THAT(calls(), ElementsAre("/org/bluez org.bluez.AgentManager1.UnregisterAgent()"));
    EXPECT_THAT(log_.records(), ElementsAre("3 Failed to de-register authentication agent: no agent given"));
}

TEST_F(AgentRegistration, IsWithdrawnInSilenceWhenBluezAgrees) {
    bluez_->on(FakeBluez::kAgentManager, "UnregisterAgent", FakePeer::answers());
    agent_.unregisterAgent(connection_.get());
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AgentRegistration, TheWithdrawalWaitsASecondAtMost) {
    bluez_->on(FakeBluez::kAgentManager, "UnregisterAgent", FakePeer::silent());
    const auto begin = steady_clock::now();
    agent_.unregisterAgent(connection_.get());
    EXPECT_THAT(steady_clock::now() - begin, AllOf(Ge(1000ms), Lt(10s)));
    EXPECT_THAT(log_.records(), ElementsAre(StartsWith("3 Failed to de-register authentication agent: ")));
}

}  // namespace
}  // namespace UnitTest
