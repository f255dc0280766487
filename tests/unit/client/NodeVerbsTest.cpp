#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/json/parse.hpp>
#include <filesystem>

#include "tests/unit/client/Btnode.h"
#include "tests/unit/client/FakeTree.h"

namespace btnode {
namespace {

using cli::ExitCode;
using test::btnode;
using test::Ended;
using test::FakeNode;
using test::FakeTree;
using Words = std::vector<std::string>;

namespace json = boost::json;

constexpr std::chrono::milliseconds kQuick{100};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// The only line of an output, as JSON.
json::value object(const std::string& out) {
    EXPECT_EQ(out.find('\n'), out.size() - 1) << out;
    return json::parse(out.substr(0, out.size() - 1));
}

class NodeVerbs : public testing::Test {
protected:
    NodeVerbs() {
        fake_.publishService();
        fake_.publishAdapter("00:AA:01:00:00:00", "Desk");
        FakeNode& keyboard = fake_.publishDevice("00:11:22:33:44:55", "Keyboard", 3);
        keyboard.set("PROFILES", test::listValue("PROFILES", {test::integerValue("PROFILE", 0x1124),
                                                              test::integerValue("PROFILE", 0xfee0)}));
        fake_.publishDevice("00:11:22:33:44:66", "evil\x1b[31m\nname", 1, 2, 3);
    }

    Ended run(Words words) {
        words.insert(words.end(), {"--root", fake_.root()});
        return btnode(words);
    }
    FakeNode& keyboard() { return fake_.node(test::deviceNode("00:11:22:33:44:55")); }
    FakeNode& master() { return fake_.node("bluetooth/master"); }

    FakeTree fake_;
};

TEST_F(NodeVerbs, ListShowsTheTreeAligned) {
    const Ended ended = run({"list"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(ended.err, "");
    EXPECT_EQ(ended.out,
              "bluetooth\n"
              "  master   INQUIRY_START INQUIRY_STOP\n"
              "  service  STOP\n"
              "  adapters\n"
              "    00:AA:01:00:00:00  Desk\n"
              "  devices\n"
              "    00:11:22:33:44:55  paired      Peripheral: Keyboard  Keyboard\n"
              "    00:11:22:33:44:66  not paired  Phone: Smartphone     evil\\x1b[31m\\x0aname\n");
}

TEST_F(NodeVerbs, ListCanBeNarrowed) {
    EXPECT_EQ(run({"list", "adapters"}).out, "bluetooth\n  adapters\n    00:AA:01:00:00:00  Desk\n");
    const json::value value = object(run({"list", "devices", "--json"}).out);
    EXPECT_EQ(value.as_object().size(), 2U);
    EXPECT_EQ(value.at("devices").as_array().size(), 2U);
}

TEST_F(NodeVerbs, ListAsJsonHasNumbersAndWords) {
    const json::value value = object(run({"list", "--json"}).out);
    EXPECT_EQ(value.at("root"), json::value(fake_.root()));
    EXPECT_EQ(value.at("control").at(1).at("actions").at(0), "STOP");
    EXPECT_EQ(value.at("adapters").at(0).at("name"), "Desk");
    const json::value& device = value.at("devices").at(0);
    EXPECT_EQ(device.at("node"), "bluetooth/devices/00:11:22:33:44:55/device");
    EXPECT_EQ(device.at("address"), "00:11:22:33:44:55");
    EXPECT_EQ(device.at("status").at("code"), 3);
    EXPECT_EQ(device.at("status").at("text"), "paired");
    EXPECT_EQ(device.at("class").at("major"), 5);
    EXPECT_EQ(device.at("class").at("text"), "Peripheral: Keyboard");
    EXPECT_EQ(value.at("devices").at(1).at("name"), "evil\x1b[31m\nname");
}

TEST_F(NodeVerbs, ListShowsWhatAnsweredWhenSomethingDoesNot) {
    keyboard().silent = true;
    const Ended ended = test::btnodeInGrowingTime(
        {"list", "--root", fake_.root()}, [] {},
        [](const Ended& each) {
            EXPECT_EQ(each.exitCode(), ExitCode::TimedOut);
            EXPECT_NE(each.err, "");
            return contains(each.out, "Desk");
        });
    EXPECT_TRUE(contains(ended.out, "00:11:22:33:44:55  ?")) << ended.out;
    EXPECT_TRUE(contains(ended.out, "Desk"));
}

TEST_F(NodeVerbs, ListLeavesOutWhatVanishesMeanwhile) {
    fake_.publishDevice("99:00:00:00:00:00", "Ghost").objectGone = true;
    const Ended ended = run({"list", "devices"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_TRUE(contains(ended.out, "Keyboard"));
    EXPECT_FALSE(contains(ended.out, "99:00"));
}

TEST_F(NodeVerbs, ShowExplainsADevice) {
    const Ended ended = run({"show", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_TRUE(contains(ended.out, "NAME                   Keyboard\n")) << ended.out;
    EXPECT_TRUE(contains(ended.out, "STATUS                 3 (paired)\n")) << ended.out;
    EXPECT_TRUE(contains(ended.out, "PROFILES               Human Interface Device Service (0x1124), 0xfee0\n"))
        << ended.out;
    const json::value value = object(run({"show", "Keyboard", "--json"}).out);
    EXPECT_EQ(value.at("attributes").at("NAME"), "Keyboard");
    EXPECT_EQ(value.at("attributes").at("PROFILES").at(0).at("value"), 0x1124);
    EXPECT_EQ(value.at("class").at("text"), "Peripheral: Keyboard");
}

TEST_F(NodeVerbs, ShowListsActions) {
    EXPECT_TRUE(contains(run({"show", "master"}).out, "INQUIRY_START INQUIRY_STOP"));
}

TEST_F(NodeVerbs, GetPrintsBareValuesLineByLine) {
    EXPECT_EQ(run({"get", "Keyboard", "NAME"}).out, "Keyboard\n");
    EXPECT_EQ(run({"get", "Keyboard", "STATUS", "PROFILES", "ACTIVE_PROFILES", "NAME"}).out,
              "3\n4388 65248\n\nKeyboard\n");
    EXPECT_EQ(run({"get", "00:11:22:33:44:66", "NAME"}).out, "evil\\x1b[31m\\x0aname\n");
    const json::value value = object(run({"get", "Keyboard", "STATUS", "NAME", "--json"}).out);
    EXPECT_EQ(value.at("attributes"), (json::value{{"STATUS", 3}, {"NAME", "Keyboard"}}));
}

TEST_F(NodeVerbs, GetPrintsIntegersAsTheServiceWritesThem) {
    keyboard().set("STATUS", {{"name", "STATUS"}, {"kind", "integer"}, {"integer", UINT64_MAX}});
    EXPECT_EQ(run({"get", "Keyboard", "STATUS"}).out, "18446744073709551615\n");
    const json::value value = object(run({"get", "Keyboard", "STATUS", "--json"}).out);
    EXPECT_EQ(value.at("attributes"), (json::value{{"STATUS", UINT64_MAX}}));
}

TEST_F(NodeVerbs, GetOfManyAttributesAtOnce) {
    Words words = {"get", "Keyboard"};
    words.resize(200, "STATUS");
    std::string expected;
    for (int line = 0; line < 198; ++line) expected += "3\n";
    EXPECT_EQ(run(words).out, expected);
}

TEST_F(NodeVerbs, GetTellsAnUnknownAttributeFromADeviceThatIsGone) {
    const Ended unknown = run({"get", "Keyboard", "name"});
    EXPECT_EQ(unknown.exitCode(), ExitCode::NotFound);
    EXPECT_EQ(unknown.out, "");
    EXPECT_TRUE(contains(unknown.err, "'NAME'")) << unknown.err;
    keyboard().objectGone = true;
    EXPECT_EQ(run({"get", "00:11:22:33:44:55", "NAME"}).exitCode(), ExitCode::Gone);
    EXPECT_EQ(run({"show", "00:11:22:33:44:55"}).exitCode(), ExitCode::Gone);
}

TEST_F(NodeVerbs, DoSendsParametersAndPrintsResults) {
    keyboard().setActions({{"CONNECT", [](const json::object&) {
                                return test::listValue(
                                    "CONNECT", {test::integerValue("RESULT", 1), test::stringValue("PINCODE", "0042")});
                            }}});
    const Ended ended = run({"do", "Keyboard", "CONNECT", "TIMEOUT=30000"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(ended.out, "CONNECT RESULT=1 PINCODE=0042\n");
    json::object action;
    ASSERT_TRUE(keyboard().waitForAction("CONNECT", &action));
    EXPECT_EQ(json::value(action),
              (json::value{{"name", "CONNECT"},
                           {"kind", "list"},
                           {"children", {{{"name", "TIMEOUT"}, {"kind", "integer"}, {"integer", 30000}}}}}));
}

TEST_F(NodeVerbs, DoEndsWithTheCodeOfTheFirstFailure) {
    keyboard().setActions(
        {{"GOOD", [](const json::object&) { return test::integerValue("GOOD", 0); }},
         {"WAIT_CONNECTED", [](const json::object&) { return test::integerValue("WAIT_CONNECTED", 33859); }},
         {"OTHER", [](const json::object&) { return test::integerValue("OTHER", 77); }}});
    const Ended ended = run({"do", "Keyboard", "GOOD", "+", "WAIT_CONNECTED", "+", "OTHER", "+", "GOOD"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Rejected);
    EXPECT_EQ(ended.out, "GOOD 0\nWAIT_CONNECTED 33859\nOTHER 77\nGOOD 0\n");
    EXPECT_TRUE(contains(ended.err, "33859")) << ended.err;
    EXPECT_TRUE(contains(ended.err, "77")) << ended.err;
    const json::value value = object(run({"do", "Keyboard", "OTHER", "--json"}).out);
    EXPECT_EQ(value.at("results").at(0).at("ok"), false);
    EXPECT_EQ(value.at("results").at(0).at("value"), 77);
}

TEST_F(NodeVerbs, DoKnowsEveryFormOfFailure) {
    const std::vector<std::pair<json::object, ExitCode>> results = {
        {test::integerValue("A", 0), ExitCode::Ok},
        {test::integerValue("A", 33859), ExitCode::Failure},
        {test::integerValue("A", 33923), ExitCode::Failure},
        {test::integerValue("A", 33862), ExitCode::Failure},
        {test::integerValue("A", 4294967295), ExitCode::Refused},
        {test::integerValue("A", -1), ExitCode::Failure},
        {test::stringValue("A", "Invalid action"), ExitCode::Failure},
        {test::stringValue("A", "Invalid Action"), ExitCode::Failure},
        {test::stringValue("A", "Invalid option foo"), ExitCode::Failure},
        {test::stringValue("A", "Invalid format for class"), ExitCode::Failure},
        {test::stringValue("A", "a text"), ExitCode::Ok},
        {test::listValue("A", {test::integerValue("RESULT", 0)}), ExitCode::Ok},
        {test::listValue("A", {test::integerValue("RESULT", 4294967295)}), ExitCode::Refused},
        {test::listValue("A", {test::integerValue("RESULT", 1)}), ExitCode::Failure},
        {test::listValue("A", {}), ExitCode::Ok}};
    for (const auto& [result, code] : results) {
        keyboard().setActions({{"A", [&answer = result](const json::object&) { return answer; }}});
        const Ended ended = run({"do", "Keyboard", "A"});
        EXPECT_EQ(ended.exitCode(), code) << ended.out;
        EXPECT_EQ(ended.err.empty(), code == ExitCode::Ok) << ended.out << ended.err;
    }
}

TEST_F(NodeVerbs, DoNamesTheActionThatWasMeant) {
    const Ended ended = run({"do", "master", "INQUIRY_STRAT"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Failure);
    EXPECT_TRUE(contains(ended.err, "Invalid action")) << ended.err;
    EXPECT_TRUE(contains(ended.err, "'INQUIRY_START'")) << ended.err;
}

TEST_F(NodeVerbs, DoTellsThatTheObjectIsGone) {
    keyboard().objectGone = true;
    EXPECT_EQ(run({"do", "00:11:22:33:44:55", "CONNECT"}).exitCode(), ExitCode::Gone);
}

TEST_F(NodeVerbs, DoSendsNothingItCannotRead) {
    EXPECT_EQ(run({"do", "master", "A", "[1"}).exitCode(), ExitCode::Usage);
    EXPECT_EQ(run({"do", "master", "\xff"}).exitCode(), ExitCode::Usage);
    EXPECT_EQ(run({"do", "master", "A", std::string(300'000, 'x')}).exitCode(), ExitCode::Usage);
    EXPECT_TRUE(master().executed().empty());
}

TEST_F(NodeVerbs, EveryVerbTellsThatThereIsNoSuchNode) {
    for (const Words& words : {Words{"show", "nothing"}, Words{"get", "nothing", "NAME"}, Words{"do", "nothing", "A"},
                               Words{"watch", "nothing"}, Words{"scan", "nothing"}, Words{"pair", "nothing"},
                               Words{"wait", "nothing"}, Words{"cancel", "nothing"}, Words{"profiles", "nothing"},
                               Words{"activate", "nothing", "1"}, Words{"pair", "00:AA:01:00:00:00"}}) {
        const Ended ended = run(words);
        EXPECT_EQ(ended.exitCode(), ExitCode::NotFound) << words.front();
        EXPECT_EQ(ended.out, "");
    }
}

TEST_F(NodeVerbs, EveryVerbTellsThatANameIsAmbiguous) {
    const Ended ended = run({"get", "00:11", "NAME"});
    EXPECT_EQ(ended.exitCode(), ExitCode::NotFound);
    EXPECT_TRUE(contains(ended.err, test::deviceNode("00:11:22:33:44:55"))) << ended.err;
    EXPECT_TRUE(contains(ended.err, test::deviceNode("00:11:22:33:44:66"))) << ended.err;
    // The name of a stranger's device must not reach the terminal raw.
    EXPECT_EQ(ended.err.find('\x1b'), std::string::npos);
}

TEST(ExitCodes, NoServiceWithinATenthOfASecond) {
    FakeTree fake;
    for (const Words& words :
         {Words{"list"}, Words{"show", "x"}, Words{"get", "x", "NAME"}, Words{"do", "x", "A"}, Words{"watch", "x"},
          Words{"scan"}, Words{"scan", "x"}, Words{"stop"}, Words{"pair", "x"}, Words{"wait", "x"},
          Words{"cancel", "x"}, Words{"profiles", "x"}, Words{"activate", "x", "1"},
          Words{"get", test::deviceNode("00:11:22:33:44:55"), "NAME"}}) {
        Words all = words;
        all.insert(all.end(), {"--root", fake.root(), "--json"});
        // The quickest of some runs: a machine that is busy with something else delays any of them.
        Limit::Clock::duration quickest = std::chrono::hours(1);
        Ended ended;
        for (int run = 0; run < 50 && quickest > kQuick; ++run) {
            const auto begin = Limit::Clock::now();
            ended = btnode(all);
            quickest = std::min(quickest, Limit::Clock::now() - begin);
        }
        EXPECT_LT(quickest, kQuick);
        EXPECT_EQ(ended.exitCode(), ExitCode::Unreachable) << words.front();
        EXPECT_EQ(ended.out, "");
        EXPECT_TRUE(contains(ended.err, fake.pathOf("bluetooth/service"))) << ended.err;
        EXPECT_TRUE(contains(ended.err, "bluetooth-service'")) << ended.err;
    }
}

TEST(ExitCodes, AKilledServiceIsUnreachable) {
    FakeTree fake;
    fake.publishService();
    fake.publishDevice("00:11:22:33:44:55", "Keyboard");
    fake.kill();
    for (const Words& words : {Words{"list"}, Words{"get", "00:11:22:33:44:55", "NAME"}, Words{"stop"}, Words{"scan"},
                               Words{"show", "Keyboard"}}) {
        Words all = words;
        all.insert(all.end(), {"--root", fake.root()});
        EXPECT_EQ(btnode(all).exitCode(), ExitCode::Unreachable) << words.front();
    }
}

TEST(ExitCodes, ASilentServiceTimesOut) {
    FakeTree fake;
    fake.publishService();
    fake.publishDevice("00:11:22:33:44:55", "Keyboard").silent = true;
    fake.node("bluetooth/service").silent = true;
    fake.node("bluetooth/master").silent = true;
    for (const Words& words :
         {Words{"show", "master"}, Words{"get", "00:11:22:33:44:55", "NAME"}, Words{"do", "master", "A"},
          Words{"watch", "master"}, Words{"scan"}, Words{"stop"}, Words{"cancel", "00:11:22:33:44:55"},
          Words{"profiles", "00:11:22:33:44:55"}, Words{"activate", "00:11:22:33:44:55", "1"}}) {
        Words all = words;
        all.insert(all.end(), {"--root", fake.root(), "--timeout", "0.05"});
        const Ended ended = btnode(all);
        EXPECT_EQ(ended.exitCode(), ExitCode::TimedOut) << words.front() << ended.err;
        EXPECT_NE(ended.err, "");
    }
}

TEST(ExitCodes, AServiceThatRefusesCallsIsBusy) {
    FakeTree fake;
    fake.publishService();
    fake.node("bluetooth/master").answerAlways("{\"error\":\"com.kelvo.node.Busy\"}");
    const Ended ended = btnode({"do", "master", "INQUIRY_START", "--root", fake.root()});
    EXPECT_EQ(ended.exitCode(), ExitCode::Busy);
    EXPECT_TRUE(contains(ended.err, "Try again")) << ended.err;
}

TEST(ExitCodes, PermissionDeniedNamesTheGroup) {
    FakeTree fake;
    fake.publishService();
    const std::string master = fake.pathOf("bluetooth/master");
    ASSERT_EQ(::chmod(master.c_str(), ::geteuid() == 0 ? 0660 : 0060), 0);
    // Root may use everything; a thread with another user for files, and outside the group, may not.
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(master.c_str(), 0, 54321), 0);
        ::setfsuid(65534);
    }
    const Ended ended = btnode({"do", "master", "INQUIRY_START", "--root", fake.root()});
    const Ended list = btnode({"list", "--root", fake.root()});
    if (::geteuid() == 0) ::setfsuid(0);
    EXPECT_EQ(ended.exitCode(), ExitCode::Denied);
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(contains(ended.err, "which the group '")) << ended.err;
    // What may be used is still listed.
    EXPECT_EQ(list.exitCode(), ExitCode::Ok);
    EXPECT_TRUE(contains(list.out, "master   (no permission)")) << list.out;
}

TEST(ExitCodes, AStrangerOnTheSocketIsAFailure) {
    FakeTree fake;
    fake.publishService();
    for (const std::string& raw : {std::string("HTTP/1.1 400"), std::string("{}"), std::string("[1]"),
                                   std::string(R"({"parameters":{"values":[{}]}})")}) {
        fake.node("bluetooth/master").answerAlways(raw);
        const Ended ended = btnode({"do", "master", "A", "--root", fake.root()});
        EXPECT_EQ(ended.exitCode(), ExitCode::Failure) << raw;
        EXPECT_EQ(ended.out, "");
    }
}

TEST(ExitCodes, ANodeThatClosesInTheMiddleIsGone) {
    FakeTree fake;
    fake.publishService();
    fake.node("bluetooth/master").setActions({{"A", [](const json::object&) { return json::object(); }}});
    EXPECT_EQ(btnode({"do", "master", "A", "--root", fake.root()}).exitCode(), ExitCode::Gone);
}

}  // namespace
}  // namespace btnode
