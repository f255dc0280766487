#include <boost/json/parse.hpp>

#include "tests/unit/client/DeviceVerbs.h"

namespace btnode::test {
namespace {

json::object connectAnswer(std::int64_t result) {
    return listValue("CONNECT", {integerValue("RESULT", result)});
}

json::object pincodeAnswer(const std::string& pincode) {
    return listValue("CONNECT", {integerValue("RESULT", 1), stringValue("PINCODE", pincode)});
}

using PairVerb = DeviceVerbs;

TEST_F(PairVerb, PrintsThePincodeAtOnceAndAloneOnItsLine) {
    answer("CONNECT", pincodeAnswer("482913"));
    answerLater("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 0));
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
    answer("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 0));
    RunningBtnode pair(here({"pair", "Keyboard", "--json"}));
    const json::value pincode = json::parse(pair.line());
    EXPECT_EQ(pincode.at("event"), "pincode");
    EXPECT_EQ(pincode.at("pincode"), "0042");
    EXPECT_EQ(json::parse(pair.line()).at("event"), "paired");
    EXPECT_EQ(pair.wait().err, "");
}

TEST_F(PairVerb, SanitisesAPincodeOfAStranger) {
    answer("CONNECT", pincodeAnswer("12\x1b[2J\n34"));
    answer("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 0));
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
    answer("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 0));
    run({"pair", "Keyboard", "--timeout", "90"});
    json::object action;
    ASSERT_TRUE(keyboard().waitForAction("CONNECT", &action));
    EXPECT_EQ(firstOption(action), 90'000);
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED", &action));
    EXPECT_LE(firstOption(action), 90'000);
    EXPECT_GT(firstOption(action), 60'000);
    run({"pair", "Keyboard"});
    ASSERT_TRUE(keyboard().waitForAction("CONNECT", &action));
    EXPECT_EQ(firstOption(action), 60'000);
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
    answer("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 33859));
    const Ended ended = run({"pair", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Rejected);
    EXPECT_TRUE(contains(ended.err, "33859")) << ended.err;
    // Nothing is left to cancel.
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "WAIT_CONNECTED"}));
}

TEST_F(PairVerb, TellsRejectedWhenThePairingFailedBeforeItWasWaitedFor) {
    answer("CONNECT", pincodeAnswer("1"));
    answer("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 33923));
    EXPECT_EQ(run({"pair", "Keyboard"}).exitCode(), ExitCode::Rejected);
}

TEST_F(PairVerb, TellsTimedOutWhenBlueZGaveUpInTime) {
    // What a service answers whose Pair had no reply: the same number as for a refusal, but late.
    keyboard().setAction("CONNECT", [](const json::object& action) {
        EXPECT_EQ(waitFor(-1, 0, Limit::in(std::chrono::milliseconds(firstOption(action)))), Ready::TimedOut);
        return connectAnswer(kRefused);
    });
    const Ended ended = btnodeInGrowingTime(
        here({"pair", "Keyboard"}), [this] { keyboard().forget(); },
        [this](const Ended& each) {
            EXPECT_EQ(each.exitCode(), ExitCode::TimedOut) << each.err;
            return keyboard().executed() == Words{"CONNECT"};
        });
    EXPECT_TRUE(contains(ended.err, "was not paired within")) << ended.err;
}

TEST_F(PairVerb, CancelsAPairingThatTimedOut) {
    answer("CONNECT", pincodeAnswer("1"));
    keyboard().setAction("WAIT_CONNECTED", [this](const json::object& action) {
        EXPECT_EQ(waitFor(-1, 0, Limit::in(std::chrono::milliseconds(firstOption(action)))), Ready::TimedOut);
        setStatus(0);
        return integerValue("WAIT_CONNECTED", 33859);
    });
    answer("DISCONNECT", integerValue("DISCONNECT", 0));
    btnodeInGrowingTime(
        here({"pair", "Keyboard"}),
        [this] {
            keyboard().forget();
            setStatus(1);
        },
        [this](const Ended& each) {
            EXPECT_EQ(each.exitCode(), ExitCode::TimedOut) << each.err;
            return keyboard().executed().size() == 3;
        });
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "WAIT_CONNECTED", "DISCONNECT"}));
}

TEST_F(PairVerb, TellsGoneAtOnceThoughTheRequestIsStillInProgress) {
    answerLater("CONNECT", connectAnswer(0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("CONNECT"));
    // As long as the gate is closed, the withdrawal waits for the request that is being served, and btnode does not.
    std::thread withdrawal([&] { fake_.withdraw(deviceNode("00:11:22:33:44:55")); });
    const Ended ended = pair.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Gone);
    EXPECT_TRUE(contains(ended.err, "is gone")) << ended.err;
    fake_.gate().open();
    withdrawal.join();
}

TEST_F(PairVerb, TellsGoneRatherThanRejectedWhenTheDeviceLeaves) {
    answer("CONNECT", pincodeAnswer("1"));
    keyboard().setAction("WAIT_CONNECTED", [this](const json::object&) {
        keyboard().tellWithdrawn();
        return integerValue("WAIT_CONNECTED", 33859);
    });
    EXPECT_EQ(run({"pair", "Keyboard"}).exitCode(), ExitCode::Gone);
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
    keyboard().setAction("DISCONNECT", [this](const json::object&) {
        fake_.gate().open();
        return integerValue("DISCONNECT", 0);
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

TEST_F(PairVerb, CtrlCBeforeThePairingHasBegunLeavesThatOfAnotherAlone) {
    setStatus(2);
    keyboard().watchUnconfirmed = true;
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForWatcher());
    pair.interrupt();
    const Ended ended = pair.wait();
    EXPECT_EQ(ended.exitCode(), ExitCode::Interrupted) << ended.err;
    EXPECT_EQ(keyboard().executed(), Words{});
}

TEST_F(PairVerb, CtrlCWhileThePincodeIsTypedCancelsToo) {
    answer("CONNECT", pincodeAnswer("77"));
    answerLater("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 33859));
    answer("DISCONNECT", integerValue("DISCONNECT", 0));
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
    answerLater("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 0));
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
    answer("DISCONNECT", integerValue("DISCONNECT", 0));
    RunningBtnode pair(here({"pair", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("CONNECT"));
    pair.closeOutput();
    fake_.gate().open();
    EXPECT_EQ(pair.wait().code, cli::kReaderGone);
    EXPECT_EQ(keyboard().executed(), (Words{"CONNECT", "DISCONNECT"}));
}

TEST_F(PairVerb, AnswersThatMakeNoSenseAreFailures) {
    answer("CONNECT", integerValue("CONNECT", 33862));
    EXPECT_EQ(run({"pair", "Keyboard"}).exitCode(), ExitCode::Failure);
    keyboard().setActions({});
    answer("CONNECT", listValue("CONNECT", {}));
    EXPECT_EQ(run({"pair", "Keyboard"}).exitCode(), ExitCode::Failure);
}

using WaitVerb = DeviceVerbs;

TEST_F(WaitVerb, TellsHowAPairingEnded) {
    for (const auto& [result, code] : {std::pair<std::int64_t, ExitCode>{0, ExitCode::Ok},
                                       {33859, ExitCode::Rejected},
                                       {33923, ExitCode::Failure}}) {
        keyboard().setActions({});
        answer("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", result));
        EXPECT_EQ(run({"wait", "Keyboard"}).exitCode(), code) << result;
    }
}

TEST_F(WaitVerb, TellsATimeOutFromARejection) {
    keyboard().setAction("WAIT_CONNECTED", [](const json::object& action) {
        EXPECT_EQ(waitFor(-1, 0, Limit::in(std::chrono::milliseconds(firstOption(action)))), Ready::TimedOut);
        return integerValue("WAIT_CONNECTED", 33859);
    });
    btnodeInGrowingTime(
        here({"wait", "Keyboard"}), [this] { keyboard().forget(); },
        [this](const Ended& each) {
            EXPECT_EQ(each.exitCode(), ExitCode::TimedOut) << each.err;
            return !keyboard().executed().empty();
        });
    EXPECT_EQ(keyboard().executed(), Words{"WAIT_CONNECTED"});
}

TEST_F(WaitVerb, CtrlCLeavesThePairingOfAnotherAlone) {
    answerLater("WAIT_CONNECTED", integerValue("WAIT_CONNECTED", 0));
    RunningBtnode wait(here({"wait", "Keyboard"}));
    ASSERT_TRUE(keyboard().waitForAction("WAIT_CONNECTED"));
    wait.interrupt();
    EXPECT_EQ(wait.wait().exitCode(), ExitCode::Interrupted);
    EXPECT_EQ(keyboard().executed(), Words{"WAIT_CONNECTED"});
    fake_.gate().open();
}

using CancelVerb = DeviceVerbs;

TEST_F(CancelVerb, SendsDisconnect) {
    setStatus(2);
    answer("DISCONNECT", integerValue("DISCONNECT", 0));
    EXPECT_EQ(run({"cancel", "Keyboard"}).exitCode(), ExitCode::Ok);
    EXPECT_EQ(keyboard().executed(), Words{"DISCONNECT"});
    EXPECT_EQ(json::parse(run({"cancel", "Keyboard", "--json"}).out).at("event"), "cancelled");
}

TEST_F(CancelVerb, TellsThatThereIsNothingToCancel) {
    answer("DISCONNECT", integerValue("DISCONNECT", 33859));
    EXPECT_EQ(run({"cancel", "Keyboard"}).exitCode(), ExitCode::Failure);
}

TEST_F(CancelVerb, DoesNotTouchAPairedDevice) {
    setStatus(3);
    answer("DISCONNECT", integerValue("DISCONNECT", 33859));
    const Ended ended = run({"cancel", "Keyboard"});
    EXPECT_EQ(ended.exitCode(), ExitCode::Failure);
    EXPECT_TRUE(contains(ended.err, "is paired"));
    EXPECT_TRUE(keyboard().executed().empty());
}

}  // namespace
}  // namespace btnode::test
