#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include "tests/unit/client/Btnode.h"
#include "tests/unit/client/FakeTree.h"

namespace btnode {
namespace {

using cli::ExitCode;
using test::btnode;
using test::Ended;
using test::FakeNode;
using test::FakeTree;
using test::RunningBtnode;
using Words = std::vector<std::string>;

namespace json = boost::json;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class LiveVerbs : public testing::Test {
protected:
    LiveVerbs() {
        fake_.publishService();
        fake_.publishAdapter("00:AA:01:00:00:00", "Desk");
        fake_.publishDevice("00:11:22:33:44:55", "Keyboard");
    }

    Words here(Words words) const {
        words.insert(words.end(), {"--root", fake_.root()});
        return words;
    }
    FakeNode& keyboard() { return fake_.node(keyboardNode_); }
    FakeNode& master() { return fake_.node("bluetooth/master"); }
    void rename(const std::string& name) {
        keyboard().set("NAME", test::stringValue("NAME", name));
        keyboard().change();
    }

    FakeTree fake_;
    const std::string keyboardNode_ = test::deviceNode("00:11:22:33:44:55");
};

using WatchVerb = LiveVerbs;

TEST_F(WatchVerb, PrintsTheNameWithEachChange) {
    RunningBtnode watch(here({"watch", "Keyboard"}));
    EXPECT_TRUE(contains(watch.errorLine(), "Watching " + keyboardNode_));
    rename("Second");
    EXPECT_EQ(watch.line(), "Second");
    rename("Th\x1b[2Jird");
    EXPECT_EQ(watch.line(), "Th\\x1b[2Jird");
    watch.interrupt();
    const Ended ended = watch.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Interrupted);
    EXPECT_EQ(ended.out, "");
}

TEST_F(WatchVerb, EndsWithACodeOfItsOwnWhenTheNodeIsWithdrawn) {
    RunningBtnode watch(here({"watch", "Keyboard", "--json"}));
    EXPECT_EQ(json::parse(watch.line()),
              (json::value{{"event", "watching"}, {"node", keyboardNode_}, {"name", "Keyboard"}}));
    rename("Second");
    EXPECT_EQ(json::parse(watch.line()),
              (json::value{{"event", "changed"}, {"node", keyboardNode_}, {"change", 0}, {"name", "Second"}}));
    fake_.withdraw(keyboardNode_);
    EXPECT_EQ(json::parse(watch.line()), (json::value{{"event", "withdrawn"}, {"node", keyboardNode_}}));
    EXPECT_EQ(watch.wait().exitCode(), ExitCode::Gone);
}

TEST_F(WatchVerb, EndsAfterSomeChangesOrSomeTime) {
    RunningBtnode counted(here({"watch", "Keyboard", "--count", "1"}));
    ASSERT_TRUE(keyboard().waitForWatcher());
    rename("Second");
    const Ended ended = counted.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(ended.out, "Second\n");
    EXPECT_EQ(btnode(here({"watch", "Second", "--for", "0.05"})).exitCode(), ExitCode::Ok);
}

TEST_F(WatchVerb, WatchesNodesWithoutAName) {
    RunningBtnode watch(here({"watch", "master", "--count", "1"}));
    EXPECT_TRUE(contains(watch.errorLine(), "Watching bluetooth/master;"));
    master().change(5);
    EXPECT_EQ(watch.wait().out, "(changed)\n");
}

TEST_F(WatchVerb, EndsWhenNobodyReadsItAnyMore) {
    RunningBtnode watch(here({"watch", "Keyboard"}));
    watch.errorLine();
    watch.closeOutput();
    rename("Second");
    EXPECT_EQ(watch.wait().code, cli::kReaderGone);
}

using ScanVerb = LiveVerbs;

TEST_F(ScanVerb, ListsWhatAppearsChangesAndGoes) {
    RunningBtnode scan(here({"scan"}));
    ASSERT_TRUE(master().waitForAction("INQUIRY_START"));
    EXPECT_EQ(scan.line(), "known    00:11:22:33:44:55  not paired  Peripheral: Keyboard      Keyboard");
    fake_.publishDevice("00:11:22:33:44:66", "Evil\x1b[2J", 1, 2, 3);
    EXPECT_EQ(scan.line(), "found    00:11:22:33:44:66  not paired  Phone: Smartphone         Evil\\x1b[2J");
    keyboard().set("NAME", test::stringValue("NAME", "Renamed"));
    EXPECT_EQ(scan.line(), "changed  00:11:22:33:44:55  not paired  Peripheral: Keyboard      Renamed");
    fake_.withdraw(test::deviceNode("00:11:22:33:44:66"));
    EXPECT_TRUE(contains(scan.line(), "gone     00:11:22:33:44:66"));
    fake_.publishDevice("00:11:22:33:44:66", "Back", 1, 2, 3);
    EXPECT_TRUE(contains(scan.line(), "found    00:11:22:33:44:66"));
    EXPECT_EQ(master().executed(), Words{"INQUIRY_START"});
    scan.interrupt();
    EXPECT_EQ(scan.wait().exitCode(), ExitCode::Interrupted);
    EXPECT_EQ(master().executed(), (Words{"INQUIRY_START", "INQUIRY_STOP"}));
}

TEST_F(ScanVerb, EndsAfterItsTimeAndStopsTheInquiry) {
    const Ended ended = btnode(here({"scan", "--for", "0.05", "--json"}));
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(master().executed(), (Words{"INQUIRY_START", "INQUIRY_STOP"}));
    std::vector<std::string> events;
    for (std::size_t at = 0; at < ended.out.size();) {
        const std::size_t end = ended.out.find('\n', at);
        events.emplace_back(json::parse(ended.out.substr(at, end - at)).at("event").as_string().c_str());
        at = end + 1;
    }
    ASSERT_GE(events.size(), 2U);
    EXPECT_EQ(events.front(), "scanning");
    EXPECT_EQ(events.back(), "stopped");
}

TEST_F(ScanVerb, UsesOneAdapter) {
    EXPECT_EQ(btnode(here({"scan", "Desk", "--for", "0.05"})).exitCode(), ExitCode::Ok);
    EXPECT_EQ(fake_.node(test::adapterNode("00:AA:01:00:00:00")).executed(), (Words{"INQUIRY_START", "INQUIRY_STOP"}));
    EXPECT_TRUE(master().executed().empty());
}

TEST_F(ScanVerb, LeavesAnInquiryAloneThatDidNotStart) {
    master().setAction("INQUIRY_START", [](const json::object&) { return test::integerValue("INQUIRY_START", 33859); });
    const Ended ended = btnode(here({"scan"}));
    EXPECT_EQ(ended.exitCode(), ExitCode::Failure);
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(contains(ended.err, "33859"));
    EXPECT_TRUE(contains(ended.err, "rfkill"));
    EXPECT_EQ(master().executed(), Words{"INQUIRY_START"});
}

TEST_F(ScanVerb, StopsAnInquiryWhoseStartIsInterrupted) {
    master().setAction("INQUIRY_START", [&](const json::object&) {
        fake_.gate().wait();
        return test::integerValue("INQUIRY_START", 0);
    });
    RunningBtnode scan(here({"scan"}));
    ASSERT_TRUE(master().waitForAction("INQUIRY_START"));
    scan.interrupt();
    EXPECT_EQ(scan.wait().exitCode(), ExitCode::Interrupted);
    EXPECT_EQ(master().executed(), (Words{"INQUIRY_START", "INQUIRY_STOP"}));
}

TEST_F(ScanVerb, StopsTheInquiryWhenNobodyReadsTheListAnyMore) {
    RunningBtnode scan(here({"scan"}));
    scan.line();
    scan.closeOutput();
    fake_.publishDevice("00:11:22:33:44:66", "New");
    EXPECT_EQ(scan.wait().code, cli::kReaderGone);
    EXPECT_EQ(master().executed(), (Words{"INQUIRY_START", "INQUIRY_STOP"}));
}

TEST_F(ScanVerb, EndsWhenTheAdapterIsWithdrawn) {
    const std::string adapter = test::adapterNode("00:AA:01:00:00:00");
    RunningBtnode scan(here({"scan", "Desk"}));
    ASSERT_TRUE(fake_.node(adapter).waitForAction("INQUIRY_START"));
    scan.line();
    fake_.withdraw(adapter);
    const Ended ended = scan.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Gone);
    EXPECT_TRUE(contains(ended.err, adapter + " was withdrawn"));
}

TEST_F(ScanVerb, SaysThatTheInquiryCouldNotBeStopped) {
    master().setAction("INQUIRY_STOP", [](const json::object&) { return test::integerValue("INQUIRY_STOP", 33859); });
    const Ended ended = btnode(here({"scan", "--for", "0.05"}));
    EXPECT_EQ(ended.exitCode(), ExitCode::Failure);
    EXPECT_TRUE(contains(ended.err, "did not stop the inquiry"));
}

using StopVerb = LiveVerbs;

TEST_F(StopVerb, WaitsUntilTheServiceIsGone) {
    FakeNode& service = fake_.node("bluetooth/service");
    // The sockets of this fake are in the test's own process, which does not end: the verb is to time out on it.
    const Ended waiting = test::btnodeInGrowingTime(
        here({"stop"}), [&] { service.forget(); },
        [&](const Ended& each) {
            EXPECT_EQ(each.exitCode(), ExitCode::TimedOut);
            return contains(each.err, "told to stop");
        });
    EXPECT_TRUE(contains(waiting.err, "told to stop"));
    EXPECT_EQ(service.executed(), Words{"STOP"});
}

TEST_F(StopVerb, ReportsARefusal) {
    fake_.node("bluetooth/service").setActions({});
    const Ended ended = btnode(here({"stop"}));
    EXPECT_EQ(ended.exitCode(), ExitCode::Failure);
    EXPECT_TRUE(contains(ended.err, "Invalid action"));
}

}  // namespace
}  // namespace btnode
