#include "tests/unit/service/ServiceFixture.h"
#include "tests/unit/support/NodeClient.h"

namespace UnitTest {
namespace {

using Services::Bluetooth::Linux::Service;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ControlNodes : public WithService {
protected:
    void SetUp() override {
        bluez_->on(FakeBluez::kAdapter, "StartDiscovery", FakePeer::answers());
        bluez_->on(FakeBluez::kAdapter, "StopDiscovery", FakePeer::answers());
    }

    /// Each result as NAME=PAYLOAD, with a text in quotes.
    std::vector<std::string> execute(std::uint64_t node, const std::vector<std::string>& names) {
        TArray<NodeValue> actions;
        for (const std::string& name : names) actions.push_back(NodeValue::makeInteger(String::create(name), 1));
        (*service_)->setCallerId(node);
        std::vector<std::string> results;
        for (const NodeValue& value : (*service_)->execute(std::move(actions))) {
            const std::string payload = value.kind == NodeValue::kInteger ? std::to_string(value.integer)
                                                                          : '"' + std::string(viewOf(value.text)) + '"';
            results.push_back(std::string(viewOf(value.name)) + "=" + payload);
        }
        return results;
    }
    std::vector<std::string> actionNames(std::uint64_t node) {
        (*service_)->setCallerId(node);
        std::vector<std::string> names;
        for (std::uint64_t index = 0; index < (*service_)->actionCount(); ++index) {
            names.emplace_back(viewOf((*service_)->actionName(index)));
        }
        EXPECT_FALSE((*service_)->actionName(names.size())) << "one past the last";
        return names;
    }
};

TEST_F(ControlNodes, TheServiceNodeHasTheActionStop) {
    start();
    EXPECT_THAT(actionNames(Service::SERVICE_NODE), ElementsAre("STOP"));
}

TEST_F(ControlNodes, TheMasterNodeHasInquiryStartAndInquiryStop) {
    start();
    EXPECT_THAT(actionNames(Service::MASTER_NODE), ElementsAre("INQUIRY_START", "INQUIRY_STOP"));
}

TEST_F(ControlNodes, NoOtherNodeHasActionsOrResults) {
    start();
    for (const std::uint64_t node : {std::uint64_t{0}, std::uint64_t{3}, ~std::uint64_t{0}}) {
        EXPECT_THAT(actionNames(node), IsEmpty());
        EXPECT_THAT(execute(node, {"STOP", "INQUIRY_START"}), IsEmpty());
    }
    EXPECT_EQ(log_.count("1 Service terminate requested"), 0u);
}

TEST_F(ControlNodes, HaveNoAttributes) {
    start();
    for (const std::uint64_t node : {Service::SERVICE_NODE, Service::MASTER_NODE}) {
        (*service_)->setCallerId(node);
        EXPECT_EQ((*service_)->attributeCount(), 0u);
        EXPECT_FALSE((*service_)->attributeName(0));
        EXPECT_THAT((*service_)->getAttribute(String::create("NAME")), IsEmpty());
        EXPECT_THAT((*service_)->setAttribute({NodeValue{}}), IsEmpty());
    }
}

TEST_F(ControlNodes, AnEmptyCallHasNoResults) {
    start();
    EXPECT_THAT(execute(Service::SERVICE_NODE, {}), IsEmpty());
    EXPECT_THAT(execute(Service::MASTER_NODE, {}), IsEmpty());
}

TEST_F(ControlNodes, StopTwiceInOneCallYieldsTwoResultsAndTwoLines) {
    start();
    log_.forget();
    EXPECT_THAT(execute(Service::SERVICE_NODE, {"STOP", "STOP"}), ElementsAre("STOP=0", "STOP=0"));
    ASSERT_TRUE(service_->waitForEnd());
    EXPECT_EQ(log_.count("1 Service terminate requested"), 2u);
    EXPECT_EQ(log_.count("1 Service terminated"), 1u);
    EXPECT_EQ(log_.records().front(), "1 Service terminate requested");
}

TEST_F(ControlNodes, EachNodeKnowsItsOwnActionsAlone) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    start();
    EXPECT_THAT(execute(Service::MASTER_NODE, {"STOP", "stop", ""}),
                ElementsAre(R"(STOP="Invalid action")", R"(stop="Invalid action")", R"(="Invalid action")"));
    EXPECT_THAT(execute(Service::SERVICE_NODE, {"INQUIRY_START", "INQUIRY_STOP", "Stop"}),
                ElementsAre(R"(INQUIRY_START="Invalid action")", R"(INQUIRY_STOP="Invalid action")",
                            R"(Stop="Invalid action")"));
    EXPECT_EQ(log_.count("1 Service terminate requested"), 0u);
    EXPECT_EQ(bluez_->count(FakeBluez::kAdapter, "StartDiscovery"), 0u);
}

TEST_F(ControlNodes, AnActionWithoutANameIsInvalid) {
    start();
    (*service_)->setCallerId(Service::MASTER_NODE);
    const TArray<NodeValue> results = (*service_)->execute({NodeValue{}});
    ASSERT_EQ(results.size(), 1u);
    EXPECT_FALSE(results.front().name);
    EXPECT_EQ(viewOf(results.front().text), "Invalid action");
}

TEST_F(ControlNodes, AnInquiryWithoutAdaptersFails) {
    start();
    EXPECT_THAT(execute(Service::MASTER_NODE, {"INQUIRY_START", "INQUIRY_STOP"}),
                ElementsAre("INQUIRY_START=33859", "INQUIRY_STOP=33859"));
}

TEST_F(ControlNodes, AnInquirySucceedsWhenOneOfTwoAdaptersDoes) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_.addAdapter("/org/bluez/unit1", "00:1A:7D:DA:71:14");
    bluez_->on(FakeBluez::kAdapter, "StartDiscovery", [](const FakePeer::Request& request) {
        if (request.call().path == kAdapterPath) {
            request.error("org.bluez.Error.Failed");
        } else {
            request.reply();
        }
    });
    start();
    EXPECT_THAT(execute(Service::MASTER_NODE, {"INQUIRY_START"}), ElementsAre("INQUIRY_START=0"));
    EXPECT_EQ(bluez_->count(FakeBluez::kAdapter, "StartDiscovery"), 2u);
}

TEST_F(ControlNodes, AnInquiryFailsWhenEveryAdapterDoes) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_->on(FakeBluez::kAdapter, "StartDiscovery", FakePeer::fails("org.bluez.Error.Failed"));
    start();
    EXPECT_THAT(execute(Service::MASTER_NODE, {"INQUIRY_START"}), ElementsAre("INQUIRY_START=33859"));
}

TEST_F(ControlNodes, WrongActionsDoNotKeepTheOthersOfACallFromBeingCarriedOut) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    start();
    EXPECT_THAT(execute(Service::MASTER_NODE, {"INQUIRY_START", "NONSENSE", "INQUIRY_STOP"}),
                ElementsAre("INQUIRY_START=0", R"(NONSENSE="Invalid action")", "INQUIRY_STOP=0"));
    EXPECT_EQ(bluez_->count(FakeBluez::kAdapter, "StopDiscovery"), 1u);
}

TEST_F(ControlNodes, OptionsOfAnInquiryOnAllAdaptersAreIgnored) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    start();
    (*service_)->setCallerId(Service::MASTER_NODE);
    const TArray<NodeValue> results = (*service_)->execute({NodeValue::makeList(
        String::create("INQUIRY_START"), {NodeValue::makeInteger(String::create("nonsense"), 1)})});
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results.front().kind, NodeValue::kInteger);
    EXPECT_EQ(results.front().integer, 0u);
}

TEST_F(ControlNodes, AreDescribedToClients) {
    start();
    EXPECT_THAT(NodeClient("bluetooth/service").call("Describe"), HasSubstr("LinuxBTService"));
    const std::string master = NodeClient("bluetooth/master").call("Describe");
    EXPECT_LT(master.find("INQUIRY_START"), master.find("INQUIRY_STOP"));
}

}  // namespace
}  // namespace UnitTest
