#include "tests/unit/adapters/AdapterFixture.h"

namespace UnitTest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t kFailure = 33859;

class AdapterCommands : public WithAdapters {
protected:
    void startReady(bool discovering = false) {
        bluez_->on(FakeBluez::kAdapter, "StartDiscovery", FakePeer::answers());
        bluez_->on(FakeBluez::kAdapter, "StopDiscovery", FakePeer::answers());
        ASSERT_NO_FATAL_FAILURE(startWithAdapter(discovering));
        adapters().setCallerId(nodeIdOf(kPath));
    }

    static NodeValue action(std::string_view name) {
        NodeValue value;
        value.name = String::create(name);
        return value;
    }
    static NodeValue integer(std::string_view name) { return NodeValue::makeInteger(String::create(name), 1); }
    static NodeValue text(std::string_view name, std::string_view content = "0x5A020C") {
        return NodeValue::makeString(String::create(name), String::create(content));
    }
    static NodeValue list(std::string_view name, TArray<NodeValue> children = {}) {
        return NodeValue::makeList(String::create(name), std::move(children));
    }

    /// Each value as NAME=PAYLOAD, with a text in quotes.
    static std::vector<std::string> asText(const TArray<NodeValue>& values) {
        std::vector<std::string> texts;
        for (const NodeValue& value : values) {
            std::string payload = "?";
            if (value.kind == NodeValue::kNone) payload = "none";
            if (value.kind == NodeValue::kInteger) payload = std::to_string(value.integer);
            if (value.kind == NodeValue::kString) payload = '"' + std::string(viewOf(value.text)) + '"';
            texts.push_back((value.name ? std::string(value.name->view()) : "(null)") + "=" + payload);
        }
        return texts;
    }
    std::vector<std::string> execute(TArray<NodeValue> actions) {
        return asText(adapters().execute(std::move(actions)));
    }
    std::vector<std::string> get(std::string_view attribute) {
        return asText(adapters().getAttribute(String::create(attribute)));
    }
};

TEST_F(AdapterCommands, TheAttributesAreAddressAndName) {
    startReady();
    EXPECT_EQ(adapters().attributeCount(), 2u);
    EXPECT_EQ(viewOf(adapters().attributeName(0)), "ADDRESS");
    EXPECT_EQ(viewOf(adapters().attributeName(1)), "NAME");
    EXPECT_FALSE(adapters().attributeName(2));
    EXPECT_FALSE(adapters().attributeName(~std::uint64_t{0}));
    EXPECT_THAT(get("ADDRESS"), ElementsAre(R"(ADDRESS="00:1A:7D:DA:71:13")"));
    EXPECT_THAT(get("NAME"), ElementsAre(R"(NAME="controller")"));
}

TEST_F(AdapterCommands, AnyOtherAttributeHasNoValues) {
    startReady();
    EXPECT_THAT(get("address"), IsEmpty());
    EXPECT_THAT(get(""), IsEmpty());
    EXPECT_THAT(get("STATUS"), IsEmpty());
    EXPECT_THAT(adapters().getAttribute(nullptr), IsEmpty());
}

TEST_F(AdapterCommands, SettingAnAttributeChangesNothing) {
    startReady();
    EXPECT_THAT(adapters().setAttribute({text("NAME", "new")}), IsEmpty());
    EXPECT_THAT(get("NAME"), ElementsAre(R"(NAME="controller")"));
}

TEST_F(AdapterCommands, TheActionsAreInquiryStartAndInquiryStop) {
    startReady();
    EXPECT_EQ(adapters().actionCount(), 2u);
    EXPECT_EQ(viewOf(adapters().actionName(0)), "INQUIRY_START");
    EXPECT_EQ(viewOf(adapters().actionName(1)), "INQUIRY_STOP");
    EXPECT_FALSE(adapters().actionName(2));
}

TEST_F(AdapterCommands, ACallWithoutActionsHasNoResults) {
    startReady();
    EXPECT_THAT(execute({}), IsEmpty());
}

TEST_F(AdapterCommands, EachActionYieldsOneResultInOrder) {
    startReady();
    EXPECT_THAT(execute({action("INQUIRY_START"), action("NONSENSE"), action("INQUIRY_STOP")}),
                ElementsAre("INQUIRY_START=0", R"(NONSENSE="Invalid Action")", "INQUIRY_STOP=0"));
    EXPECT_THAT(discoveryCalls(), ElementsAre("/org/bluez/unit0 StartDiscovery", "/org/bluez/unit0 StopDiscovery"));
}

TEST_F(AdapterCommands, AFailureIsReportedByItsCode) {
    startReady();
    bluez_->on(FakeBluez::kAdapter, "StartDiscovery", FakePeer::fails("org.bluez.Error.Failed"));
    EXPECT_THAT(execute({action("INQUIRY_START")}), ElementsAre("INQUIRY_START=33859"));
    EXPECT_EQ(kFailure, 0x8443u);
}

TEST_F(AdapterCommands, StoppingAnIdleAdapterSucceedsWithoutACall) {
    startReady();
    EXPECT_THAT(execute({action("INQUIRY_STOP")}), ElementsAre("INQUIRY_STOP=0"));
    EXPECT_THAT(discoveryCalls(), IsEmpty());
}

TEST_F(AdapterCommands, StoppingIgnoresAnyPayload) {
    startReady(true);
    EXPECT_THAT(execute({list("INQUIRY_STOP", {integer("class"), integer("foo")})}), ElementsAre("INQUIRY_STOP=0"));
    EXPECT_FALSE(adapter()->discovering());
}

TEST_F(AdapterCommands, AClassFilterGivenAsTextOrListIsAcceptedAndNotApplied) {
    startReady();
    EXPECT_THAT(execute({list("INQUIRY_START", {text("class")})}), ElementsAre("INQUIRY_START=0"));
    EXPECT_THAT(log_.records(), ElementsAre("3 Option BT class filter not yet implemented",
                                            "1 /org/bluez/unit0: start/stop discovery, attempt #1",
                                            "1 Scan started for adapter /org/bluez/unit0"));
    log_.forget();
    EXPECT_THAT(execute({list("INQUIRY_START", {list("class"), text("class", "")})}), ElementsAre("INQUIRY_START=0"));
    EXPECT_THAT(log_.records(), ElementsAre("3 Option BT class filter not yet implemented",
                                            "3 Option BT class filter not yet implemented"));
}

TEST_F(AdapterCommands, AClassFilterOfAnotherKindIsAnInvalidFormat) {
    startReady();
    EXPECT_THAT(
        execute({list("INQUIRY_START", {integer("class")}), list("INQUIRY_START", {action("class")})}),
        ElementsAre(R"(INQUIRY_START="Invalid format for class")", R"(INQUIRY_START="Invalid format for class")"));
    EXPECT_THAT(discoveryCalls(), IsEmpty());
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AdapterCommands, OfSeveralWrongOptionsTheLastIsReported) {
    startReady();
    EXPECT_THAT(execute({list("INQUIRY_START", {integer("foo"), integer("class")}),
                         list("INQUIRY_START", {integer("class"), integer("foo")}),
                         list("INQUIRY_START", {integer("foo"), text("bar"), text("class")}),
                         list("INQUIRY_START", {text("Class")})}),
                ElementsAre(R"(INQUIRY_START="Invalid format for class")", R"(INQUIRY_START="Invalid option foo")",
                            R"(INQUIRY_START="Invalid option bar")", R"(INQUIRY_START="Invalid option Class")"));
    EXPECT_THAT(discoveryCalls(), IsEmpty());
    EXPECT_THAT(log_.records(), ElementsAre("3 Option BT class filter not yet implemented"));
}

TEST_F(AdapterCommands, AnOptionWithoutANameIsAnInvalidOption) {
    startReady();
    EXPECT_THAT(execute({list("INQUIRY_START", {NodeValue::makeInteger(nullptr, 1)})}),
                ElementsAre(R"(INQUIRY_START="Invalid option ")"));
}

TEST_F(AdapterCommands, AStartWithAPayloadThatIsNoListHasNoOptions) {
    startReady();
    EXPECT_THAT(execute({text("INQUIRY_START", "foo"), integer("INQUIRY_START"), list("INQUIRY_START")}),
                ElementsAre("INQUIRY_START=0", "INQUIRY_START=0", "INQUIRY_START=0"));
    EXPECT_THAT(discoveryCalls(), ElementsAre("/org/bluez/unit0 StartDiscovery"));
}

TEST_F(AdapterCommands, NamesOfActionsAreCaseSensitive) {
    startReady();
    EXPECT_THAT(execute({action("inquiry_start"), action("INQUIRY_START ")}),
                ElementsAre(R"(inquiry_start="Invalid Action")", R"(INQUIRY_START ="Invalid Action")"));
    EXPECT_THAT(discoveryCalls(), IsEmpty());
}

TEST_F(AdapterCommands, AnActionWithoutANameIsInvalid) {
    startReady();
    EXPECT_THAT(execute({NodeValue{}}), ElementsAre(R"((null)="Invalid Action")"));
}

TEST_F(AdapterCommands, ANodeWhoseAdapterIsGoneAnswersNothing) {
    startReady();
    bluez_.withdraw(kPath, {FakeBluez::kAdapter});
    ASSERT_TRUE(log_.waitFor("1 Adapter removed: /org/bluez/unit0"));
    EXPECT_THAT(get("ADDRESS"), IsEmpty());
    EXPECT_THAT(execute({action("INQUIRY_START"), action("NONSENSE")}), IsEmpty());
    EXPECT_THAT(discoveryCalls(), IsEmpty());
}

TEST_F(AdapterCommands, ANodeThatNeverWasAnswersNothing) {
    startReady();
    adapters().setCallerId(nodeIdOf("/org/bluez/never"));
    EXPECT_THAT(get("NAME"), IsEmpty());
    EXPECT_THAT(execute({action("INQUIRY_STOP")}), IsEmpty());
}

}  // namespace
}  // namespace UnitTest
