#include "tests/unit/simulator/SimulatorTest.h"

namespace SimulatorTests {

namespace {

using namespace Simulator;

class AgentManager : public SimulatorTest {
protected:
    Outcome manage(Client& who, const std::string& member, const Value::List& arguments) {
        return who.call(kRoot, kAgentManager1, member, arguments);
    }
    Outcome add(Client& who, const std::string& object = "/agent", const std::string& capability = "NoInputNoOutput") {
        return manage(who, "RegisterAgent", {path(object), text(capability)});
    }
    Outcome remove(Client& who, const std::string& object = "/agent") {
        return manage(who, "UnregisterAgent", {path(object)});
    }
    Outcome makeDefault(Client& who, const std::string& object = "/agent") {
        return manage(who, "RequestDefaultAgent", {path(object)});
    }
    /// The clients with agents, the default one marked.
    std::vector<std::string> agents() {
        std::vector<std::string> agents;
        const auto list = client().control("Agents").at(0);
        for (const auto& agent : list.elements()) {
            agents.push_back(agent.elements()[0].text() + (agent.elements()[3].isTrue() ? "*" : ""));
        }
        return agents;
    }
};

using Names = std::vector<std::string>;

TEST_F(AgentManager, TakesOneAgentAConnection) {
    EXPECT_TRUE(add(client()).isOk());
    const auto second = add(client(), "/other");
    EXPECT_EQ(second.errorName, "org.bluez.Error.AlreadyExists");
    EXPECT_EQ(second.errorText, "Already Exists");
    Client other;
    EXPECT_TRUE(add(other).isOk());
}

TEST_F(AgentManager, KnowsTheCapabilities) {
    for (const char* capability :
         {"", "DisplayOnly", "DisplayYesNo", "KeyboardOnly", "NoInputNoOutput", "KeyboardDisplay"}) {
        EXPECT_TRUE(add(client(), "/agent", capability).isOk()) << capability;
        EXPECT_TRUE(remove(client()).isOk());
    }
    const auto unknown = add(client(), "/agent", "Telepathy");
    EXPECT_EQ(unknown.errorName, "org.bluez.Error.InvalidArguments");
    EXPECT_EQ(unknown.errorText, "Invalid arguments in method call");
    EXPECT_EQ(agents(), Names{});
}

TEST_F(AgentManager, RefusesUnregisterAgentWithoutItsArgumentAsAMethodThatIsNotThere) {
    EXPECT_TRUE(add(client()).isOk());
    const auto refused = manage(client(), "UnregisterAgent", {});
    EXPECT_EQ(refused.errorName, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(
        refused.errorText,
        "Method \"UnregisterAgent\" with signature \"\" on interface \"org.bluez.AgentManager1\" doesn't exist\n");
    EXPECT_EQ(agents(), Names{client().name() + "*"});
}

TEST_F(AgentManager, UnregistersOnlyTheCallersAgent) {
    EXPECT_EQ(remove(client()).errorName, "org.bluez.Error.DoesNotExist");
    Client other;
    EXPECT_TRUE(add(other).isOk());
    EXPECT_EQ(remove(client()).errorName, "org.bluez.Error.DoesNotExist");
    EXPECT_EQ(remove(other, "/wrong").errorName, "org.bluez.Error.DoesNotExist");
    EXPECT_TRUE(remove(other).isOk());
    EXPECT_EQ(agents(), Names{});
}

TEST_F(AgentManager, TheFirstAgentIsTheDefaultUntilAnotherAsksToBe) {
    Client other;
    EXPECT_TRUE(add(client()).isOk());
    EXPECT_TRUE(add(other).isOk());
    EXPECT_EQ(agents(), (Names{client().name() + "*", other.name()}));
    EXPECT_TRUE(makeDefault(other).isOk());
    EXPECT_EQ(agents(), (Names{client().name(), other.name() + "*"}));
    EXPECT_TRUE(remove(other).isOk());
    EXPECT_EQ(agents(), Names{client().name() + "*"});
}

TEST_F(AgentManager, OnlyAnAgentCanBeTheDefault) {
    EXPECT_EQ(makeDefault(client()).errorName, "org.bluez.Error.DoesNotExist");
    EXPECT_TRUE(add(client()).isOk());
    EXPECT_EQ(makeDefault(client(), "/wrong").errorName, "org.bluez.Error.DoesNotExist");
}

TEST_F(AgentManager, ForgetsTheAgentOfAClientThatLeavesTheBus) {
    auto other = std::make_unique<Client>();
    EXPECT_TRUE(add(*other).isOk());
    EXPECT_EQ(agents().size(), 1U);
    other.reset();
    EXPECT_TRUE(client().waitFor([&] { return agents().empty(); }));
}

}  // namespace

}  // namespace SimulatorTests
