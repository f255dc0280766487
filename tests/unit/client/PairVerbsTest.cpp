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

constexpr std::int64_t kRefused = 4294967295;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

json::object connectAnswer(std::int64_t result) {
    return test::listValue("CONNECT", {test::integerValue("RESULT", result)});
}

json::object pincodeAnswer(const std::string& pincode) {
    return test::listValue("CONNECT", {test::integerValue("RESULT", 1), test::stringValue("PINCODE", pincode)});
}

/// The integer of the first option of an action.
std::int64_t timeoutOf(const json::object& action) {
    const json::object& option = action.at("children").at(0).as_object();
    EXPECT_EQ(option.at("kind"), "integer");
    return option.at("integer").as_int64();
}

class PairVerbs : public testing::Test {
protected:
    PairVerbs() {
        fake_.publishService();
        fake_.publishDevice("00:11:22:33:44:55", "Keyboard");
    }

    Words here(Words words) const {
        words.insert(words.end(), {"--root", fake_.root()});
        return words;
    }
    Ended run(const Words& words) { return btnode(here(words)); }

    FakeNode& keyboard() { return fake_.node(test::deviceNode("00:11:22:33:44:55")); }
    void setStatus(std::int64_t status) { keyboard().set("STATUS", test::integerValue("STATUS", status)); }
    void answer(const std::string& action, json::object result) {
        keyboard().actions.emplace_back(action, [result = std::move(result)](const json::object&) { return result; });
    }
    /// The answer comes once the test opens the tree's gate.
    void answerLater(const std::string& action, json::object result) {
        keyboard().actions.emplace_back(action, [this, result = std::move(result)](const json::object&) {
            return fake_.gate().wait() ? result : json::object();
        });
    }

    FakeTree fake_;
};

using PairVerb = PairVerbs;

TEST_F(PairVerb, PrintsThePincodeAtOnceAndAloneOnItsLine) {
    answer("CONNECT", pincodeAnswer("482913"));
    answerLater("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    EXPECT_EQ(pair.line(), "482913");
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED"));
    EXPECT_EQ(pair.errorLine(), "Pairing with Keyboard (00:11:22:33:44:55); Ctrl-C cancels.");
    EXPECT_TRUE(contains(pair.errorLine(), "Type this pincode on Keyboard (00:11:22:33:44:55)"));
    fake_.gate().open();
    const Ended ended = pair.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(contains(ended.err, "Paired with Keyboard")) << ended.err;
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "WAIT_CONNECTED"}));
}

TEST_F(PairVerb, StreamsJson) {
    answer("CONNECT", pincodeAnswer("0042"));
    answer("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 0));
    RunningBtnode pair(here({"pair", "Keyboard", "--json"}));
    const json::value pincode = json::parse(pair.line());
    EXPECT_EQ(pincode.at("event"), "pincode");
    EXPECT_EQ(pincode.at("pincode"), "0042");
    EXPECT_EQ(json::parse(pair.line()).at("event"), "paired");
    EXPECT_EQ(pair.wait().err, "");
}

TEST_F(PairVerb, SanitisesAPincodeOfAStranger) {
    answer("CONNECT", pincodeAnswer("12\x1b[2J\n34"));
    answer("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 0));
    EXPECT_EQ(run({"pair", "Keyboard"}).out, "12\\x1b[2J\\x0a34\n");
}

TEST_F(PairVerb, NeedsNoPincodeWhereTheDeviceJustPairs) {
    answer("CONNECT", connectAnswer(0));
    const Ended ended = run({"pair", "00:11:22:33:44:55"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(keyboard().executed(), Words{"CONNECT"});
}

TEST_F(PairVerb, PassesTimeOutsInMilliseconds) {
    answer("CONNECT", pincodeAnswer("1"));
    answer("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 0));
    run({"pair", "Keyboard", "--timeout", "90"});
    json::object action;
    ASSERT_TRUE(keyboard().waitForAction("CONNECT", &action));
    EXPECT_EQ(timeoutOf(action), 90'000);
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED", &action));
    EXPECT_LE(timeoutOf(action), 90'000);
    EXPECT_GT(timeoutOf(action), 60'000);
    run({"pair", "Keyboard"});
    ASSERT_TRUE(keyboard().waitForAction("CONNECT", &action));
    EXPECT_EQ(timeoutOf(action), 60'000);
}

TEST_F(PairVerb, TellsRefused) {
    answer("CONNECT", connectAnswer(kRefused));
    const Ended ended = run({"pair", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Refused);
    EXPECT_TRUE(contains(ended.err, "refused")) << ended.err;
    setStatus(3);
    EXPECT_TRUE(contains(run({"pair", "Keyboard"}).err, "paired already"));
    setStatus(2);
    EXPECT_TRUE(contains(run({"pair", "Keyboard"}).err, "under way already"));
    const Ended asJson = run({"pair", "Keyboard", "--json"});
    EXPECT_EQ(json::parse(asJson.out).at("exit_code"), 7);
}

TEST_F(PairVerb, TellsRejected) {
    answer("CONNECT", pincodeAnswer("1"));
    answer("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 33859));
    const Ended ended = run({"pair", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Rejected);
    EXPECT_TRUE(contains(ended.err, "33859")) << ended.err;
    // Nothing is left to cancel.
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "WAIT_CONNECTED"}));
}

TEST_F(PairVerb, TellsRejectedWhenThePairingFailedBeforeItWasWaitedFor) {
    answer("CONNECT", pincodeAnswer("1"));
    answer("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 33923));
    EXPECT_EQ(run({"pair", "Keyboard"}).exitCode(), ExitCode::Rejected);
}

TEST_F(PairVerb, TellsTimedOutWhenBlueZGaveUpInTime) {
    // What a service answers whose Pair had no reply: the same number as for a refusal, but late.
    keyboard().actions.emplace_back("CONNECT", [this](const json::object& action) {
        EXPECT_EQ(waitFor(-1, 0, Limit::in(std::chrono::milliseconds(timeoutOf(action)))), Ready::TimedOut);
        return connectAnswer(kRefused);
    });
    const Ended ended = run({"pair", "Keyboard", "--timeout", "0.1"});
    EXPECT_EQ(ended.exitCode(), ExitCode::TimedOut);
    EXPECT_TRUE(contains(ended.err, "within 0.1 s")) << ended.err;
}

TEST_F(PairVerb, CancelsAPairingThatTimedOut) {
    answer("CONNECT", pincodeAnswer("1"));
    keyboard().actions.emplace_back("WAIT_CONNECTED", [this](const json::object& action) {
        EXPECT_EQ(waitFor(-1, 0, Limit::in(std::chrono::milliseconds(timeoutOf(action)))), Ready::TimedOut);
        setStatus(0);
        return test::integerValue("WAIT_CONNECTED", 33859);
    });
    answer("DISCONNECT", test::integerValue("DISCONNECT", 0));
    const Ended ended = run({"pair", "Keyboard", "--timeout", "0.1"});
    EXPECT_EQ(ended.exitCode(), ExitCode::TimedOut);
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "WAIT_CONNECTED", "DISCONNECT"}));
}

TEST_F(PairVerb, TellsGoneAtOnceThoughTheRequestIsStillInProgress) {
    answerLater("CONNECT", connectAnswer(0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("CONNECT"));
    // As long as the gate is closed, the withdrawal waits for the request that is being served, and btnode does not.
    std::thread withdrawal([&] { fake_.withdraw(test::deviceNode("00:11:22:33:44:55")); });
    const Ended ended = pair.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Gone);
    EXPECT_TRUE(contains(ended.err, "withdrawn")) << ended.err;
    fake_.gate().open();
    withdrawal.join();
}

TEST_F(PairVerb, TellsGoneWhenTheDeviceLeavesWhileItIsPairing) {
    answer("CONNECT", pincodeAnswer("1"));
    answerLater("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 33859));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED"));
    fake_.gate().open();
    fake_.withdraw(test::deviceNode("00:11:22:33:44:55"));
    EXPECT_EQ(pair.wait().exitCode(), ExitCode::Gone);
}

TEST_F(PairVerb, TellsGoneSoonWhenOnlyTheNodeIsLeftOfTheDevice) {
    answer("CONNECT", pincodeAnswer("1"));
    answerLater("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 33859));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED"));
    keyboard().objectGone = true;
    EXPECT_EQ(pair.wait().exitCode(), ExitCode::Gone);
    fake_.gate().open();
}

TEST_F(PairVerb, GoesOnWhenTheDeviceIsRenamedMeanwhile) {
    answerLater("CONNECT", connectAnswer(0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("CONNECT"));
    keyboard().change();
    keyboard().change();
    fake_.gate().open();
    EXPECT_EQ(pair.wait().exitCode(), ExitCode::Ok);
}

TEST_F(PairVerb, TellsGoneWhenTheDeviceVanishedBehindItsNode) {
    answer("CONNECT", connectAnswer(0));
    keyboard().objectGone = true;
    EXPECT_EQ(run({"pair", "00:11:22:33:44:55"}).exitCode(), ExitCode::Gone);
}

TEST_F(PairVerb, CtrlCCancelsThePairingOverASecondConnection) {
    answerLater("CONNECT", connectAnswer(kRefused));
    keyboard().actions.emplace_back("DISCONNECT", [this](const json::object&) {
        fake_.gate().open();
        return test::integerValue("DISCONNECT", 0);
    });
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("CONNECT"));
    setStatus(2);
    pair.interrupt();
    const Ended ended = pair.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Interrupted);
    EXPECT_TRUE(contains(ended.err, "was cancelled")) << ended.err;
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "DISCONNECT"}));
}

TEST_F(PairVerb, CtrlCWhileThePincodeIsTypedCancelsToo) {
    answer("CONNECT", pincodeAnswer("77"));
    answerLater("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 33859));
    answer("DISCONNECT", test::integerValue("DISCONNECT", 0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    EXPECT_EQ(pair.line(), "77");
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED"));
    setStatus(0);
    pair.interrupt();
    EXPECT_EQ(pair.wait().exitCode(), ExitCode::Interrupted);
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "WAIT_CONNECTED", "DISCONNECT"}));
    fake_.gate().open();
}

TEST_F(PairVerb, CtrlCDoesNotTouchADeviceThatHasJustBeenPaired) {
    answer("CONNECT", pincodeAnswer("77"));
    answerLater("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED"));
    setStatus(3);
    pair.interrupt();
    const Ended ended = pair.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Interrupted);
    EXPECT_TRUE(contains(ended.err, "had succeeded")) << ended.err;
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "WAIT_CONNECTED"}));
    fake_.gate().open();
}

TEST_F(PairVerb, CancelsWhenNobodyReadsThePincode) {
    answerLater("CONNECT", pincodeAnswer("77"));
    answer("DISCONNECT", test::integerValue("DISCONNECT", 0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("CONNECT"));
    pair.closeOutput();
    fake_.gate().open();
    EXPECT_EQ(pair.wait().code, cli::kReaderGone);
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "DISCONNECT"}));
}

TEST_F(PairVerb, AnswersThatMakeNoSenseAreFailures) {
    answer("CONNECT", test::integerValue("CONNECT", 33862));
    EXPECT_EQ(run({"pair", "Keyboard"}).exitCode(), ExitCode::Failure);
    keyboard().actions.clear();
    answer("CONNECT", test::listValue("CONNECT", {}));
    EXPECT_EQ(run({"pair", "Keyboard"}).exitCode(), ExitCode::Failure);
}

using WaitVerb = PairVerbs;

TEST_F(WaitVerb, TellsHowAPairingEnded) {
    for (const auto& [result, code] : {std::pair<std::int64_t, ExitCode>{0, ExitCode::Ok},
                                       {33859, ExitCode::Rejected},
                                       {33923, ExitCode::Failure}}) {
        keyboard().actions.clear();
        answer("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", result));
        EXPECT_EQ(run({"wait", "Keyboard"}).exitCode(), code) << result;
    }
}

TEST_F(WaitVerb, TellsATimeOutFromARejection) {
    keyboard().actions.emplace_back("WAIT_CONNECTED", [](const json::object& action) {
        EXPECT_EQ(waitFor(-1, 0, Limit::in(std::chrono::milliseconds(timeoutOf(action)))), Ready::TimedOut);
        return test::integerValue("WAIT_CONNECTED", 33859);
    });
    EXPECT_EQ(run({"wait", "Keyboard", "--timeout", "0.1"}).exitCode(), ExitCode::TimedOut);
    EXPECT_EQ(keyboard().executed(), Words{"WAIT_CONNECTED"});
}

TEST_F(WaitVerb, CtrlCLeavesThePairingOfAnotherAlone) {
    answerLater("WAIT_CONNECTED", test::integerValue("WAIT_CONNECTED", 0));
    RunningBtnode wait(here({"wait", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED"));
    wait.interrupt();
    EXPECT_EQ(wait.wait().exitCode(), ExitCode::Interrupted);
    EXPECT_EQ(keyboard().executed(), Words{"WAIT_CONNECTED"});
    fake_.gate().open();
}

using CancelVerb = PairVerbs;

TEST_F(CancelVerb, SendsDisconnect) {
    setStatus(2);
    answer("DISCONNECT", test::integerValue("DISCONNECT", 0));
    EXPECT_EQ(run({"cancel", "Keyboard"}).exitCode(), ExitCode::Ok);
    EXPECT_EQ(keyboard().executed(), Words{"DISCONNECT"});
    EXPECT_EQ(json::parse(run({"cancel", "Keyboard", "--json"}).out).at("event"), "cancelled");
}

TEST_F(CancelVerb, TellsThatThereIsNothingToCancel) {
    answer("DISCONNECT", test::integerValue("DISCONNECT", 33859));
    EXPECT_EQ(run({"cancel", "Keyboard"}).exitCode(), ExitCode::Failure);
}

TEST_F(CancelVerb, DoesNotTouchAPairedDevice) {
    setStatus(3);
    answer("DISCONNECT", test::integerValue("DISCONNECT", 33859));
    const Ended ended = run({"cancel", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Failure);
    EXPECT_TRUE(contains(ended.err, "is paired"));
    EXPECT_TRUE(keyboard().executed().empty());
}

class ProfileVerbs : public PairVerbs {
protected:
    ProfileVerbs() {
        json::array profiles;
        for (const std::int64_t number : {0x110a, 0x110b, 0x110b, 0xfee0}) {
            profiles.push_back(test::integerValue("PROFILE", number));
        }
        keyboard().set("PROFILES", test::listValue("PROFILES", profiles));
        keyboard().set("ACTIVE_PROFILES", test::listValue("ACTIVE_PROFILES", {test::integerValue("PROFILE", 0x110b)}));
        answer("ACTIVATE_PROFILE", test::listValue("ACTIVATE_PROFILE", {test::integerValue("RESULT", 0)}));
    }

    /// The number that an activation sends, -1 when it sends none.
    std::int64_t sent(const std::string& profile) {
        const std::size_t before = keyboard().executed().size();
        const Ended ended = run({"activate", "Keyboard", profile});
        if (keyboard().executed().size() == before) return -1;
        EXPECT_EQ(ended.exitCode(), ExitCode::Ok) << ended.err;
        json::object action;
        EXPECT_TRUE(keyboard().waitForAction("ACTIVATE_PROFILE", &action));
        EXPECT_EQ(action.at("children").at(0).at("name"), "PROFILE");
        return timeoutOf(action);
    }
};

TEST_F(ProfileVerbs, ProfilesAreListedWithTheirNames) {
    EXPECT_EQ(run({"profiles", "Keyboard"}).out,
              "0x110a  -       Audio Source\n"
              "0x110b  active  Audio Sink\n"
              "0x110b  -       Audio Sink\n"
              "0xfee0  -       (not assigned)\n");
    const json::value value = json::parse(run({"profiles", "Keyboard", "--json"}).out);
    EXPECT_EQ(value.at("profiles").at(1),
              (json::value{{"number", 0x110b}, {"hex", "0x110b"}, {"name", "Audio Sink"}, {"active", true}}));
    EXPECT_EQ(value.at("profiles").at(3).at("name"), nullptr);
}

TEST_F(ProfileVerbs, NoProfilesAreExplained) {
    keyboard().set("PROFILES", test::listValue("PROFILES", {}));
    const Ended ended = run({"profiles", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Ok);
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(contains(ended.err, "when a pairing succeeds"));
}

TEST_F(ProfileVerbs, AProfileIsNamedInManyWays) {
    EXPECT_EQ(sent("4362"), 0x110a);
    EXPECT_EQ(sent("0x110A"), 0x110a);
    EXPECT_EQ(sent("0000110b-0000-1000-8000-00805f9b34fb"), 0x110b);
    EXPECT_EQ(sent("audio source"), 0x110a);
    EXPECT_EQ(sent("AudioSink"), 0x110b);
    EXPECT_EQ(sent("audio si"), 0x110b);
    EXPECT_EQ(sent("4294967295"), 4294967295);
}

TEST_F(ProfileVerbs, WhatNamesNoProfileIsNotSent) {
    const std::vector<std::pair<std::string, ExitCode>> wrong = {
        {"audio", ExitCode::NotFound},    {"serial port", ExitCode::NotFound}, {"4294967296", ExitCode::Usage},
        {"0x100000000", ExitCode::Usage}, {"0x", ExitCode::NotFound},          {"0000110b-0000", ExitCode::NotFound}};
    for (const auto& [profile, code] : wrong) {
        EXPECT_EQ(run({"activate", "Keyboard", profile}).exitCode(), code) << profile;
    }
    EXPECT_TRUE(keyboard().executed().empty());
    EXPECT_TRUE(contains(run({"activate", "Keyboard", "audio"}).err, "Audio Source (0x110a), Audio Sink (0x110b)"));
}

TEST_F(ProfileVerbs, ARefusalIsExplained) {
    keyboard().actions.clear();
    answer("ACTIVATE_PROFILE", test::listValue("ACTIVATE_PROFILE", {test::integerValue("RESULT", kRefused)}));
    for (const auto& [profile, why] : {std::pair<std::string, std::string>{"0x110b", "active already"},
                                       {"0x1101", "no profile Serial Port"},
                                       {"0x110a", "BlueZ could not connect"}}) {
        const Ended ended = run({"activate", "Keyboard", profile});
        EXPECT_EQ(ended.exitCode(), ExitCode::Refused);
        EXPECT_TRUE(contains(ended.err, why)) << ended.err;
    }
}

}  // namespace
}  // namespace btnode
