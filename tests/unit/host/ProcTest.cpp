#include "platform/host/Proc.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/unit/host/Child.h"

namespace {

using HostTest::Child;

TEST(Proc, KeepsTheExitCodeThatWasSet) {
    Proc::setExitCode(-7);
    EXPECT_EQ(Proc::exitCode(), -7);
    Proc::setExitCode(0);
    EXPECT_EQ(Proc::exitCode(), 0);
}

TEST(Proc, ExitRunsNoHandlers) {
    Child child({.arguments = {"exit-at-once"}});
    EXPECT_EQ(child.wait(), 3);
    EXPECT_EQ(child.error().rest(), "");
}

TEST(Proc, OpensClosedStandardDescriptorsOnTheNullDevice) {
    Child child({.arguments = {"standard-descriptors"}, .closeAll = true});
    EXPECT_EQ(child.wait(), 0);
}

TEST(Proc, IgnoresBrokenPipes) {
    Child child({.arguments = {"broken-pipe"}});
    EXPECT_EQ(child.wait(), 0);
}

class Termination : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Signals, Termination, testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST_P(Termination, EndsTheWaitsOfAStartThatNobodyCanStop) {
    Child child({.arguments = {"interrupted-while-starting"}});
    ASSERT_EQ(child.error().line(), "ready");
    child.signal(GetParam());
    EXPECT_EQ(child.wait(), 0) << "asked to end while it started: the code is 0 although main returned 1";
    EXPECT_EQ(child.error().rest(), "waited 0\nrequested 1\npending 1\ninterrupted 1\ndeliveries 0\n");
}

TEST_P(Termination, IsDeliveredToWhoeverRegistered) {
    Child child({.arguments = {"delivered"}});
    ASSERT_EQ(child.error().line(), "ready");
    child.signal(GetParam());
    ASSERT_EQ(child.error().line(), "waited 1");
    child.signal(SIGTERM);
    child.signal(SIGINT);
    child.goOn();
    EXPECT_EQ(child.wait(), 5);
    EXPECT_EQ(child.error().rest(), "requested 1\npending 0\ninterrupted 0\ndeliveries 1\n");
}

TEST_P(Termination, StaysPendingUntilItCanBeDelivered) {
    Child child({.arguments = {"delivered-later"}});
    ASSERT_EQ(child.error().line(), "ready");
    child.signal(GetParam());
    EXPECT_EQ(child.wait(), 6);
    EXPECT_EQ(child.error().rest(),
              "slept 0\nrequested 1\npending 1\ninterrupted 1\ndeliveries 1\n"
              "requested 1\npending 0\ninterrupted 0\ndeliveries 2\nwaited 1\n");
}

TEST_P(Termination, ThatCameBeforeIsDeliveredAtOnceOnTheHostsThread) {
    Child child({.arguments = {"registered-later"}});
    ASSERT_EQ(child.error().line(), "ready");
    child.signal(GetParam());
    EXPECT_EQ(child.wait(), 7);
    EXPECT_EQ(child.error().rest(), "on the main thread 0\nwaited 1\n");
}

TEST_P(Termination, IsTriedOnceMoreWhenSomebodyAsksDuringADelivery) {
    Child child({.arguments = {"retried-by-another"}});
    ASSERT_EQ(child.error().line(), "ready");
    child.signal(GetParam());
    EXPECT_EQ(child.wait(), 8);
    EXPECT_EQ(child.error().rest(), "requested 1\npending 0\ninterrupted 0\ndeliveries 2\n");
}

TEST(Proc, LeavesAHangupIgnoredThatTheParentHadIgnored) {
    Child normal({.arguments = {"blocked-signals"}});
    EXPECT_EQ(normal.wait(), 0);
    EXPECT_EQ(normal.error().rest(), "terminate 1\ninterrupt 1\nhangup 1\n");
    Child ignoring({.arguments = {"blocked-signals"}, .ignoredSignals = {SIGHUP}});
    EXPECT_EQ(ignoring.wait(), 0);
    EXPECT_EQ(ignoring.error().rest(), "terminate 1\ninterrupt 1\nhangup 0\n");
}

TEST(Proc, TakesAnInterruptThatTheParentHadIgnored) {
    Child child({.arguments = {"delivered"}, .ignoredSignals = {SIGINT}});
    ASSERT_EQ(child.error().line(), "ready");
    child.signal(SIGINT);
    EXPECT_EQ(child.error().line(), "waited 1");
    child.goOn();
    EXPECT_EQ(child.wait(), 5);
}

}  // namespace
