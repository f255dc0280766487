#include "platform/host/InitCode.h"

#include <gtest/gtest.h>

#include "tests/unit/host/Child.h"

namespace {

using HostTest::Child;

TEST(InitCode, RunsInitialisersMainAndExitHandlersInOrder) {
    Child child({.arguments = {"return", "42"}});
    EXPECT_EQ(child.wait(), 42);
    EXPECT_EQ(child.error().rest(), "initialised 12\nbound 1\nsecond handler\nhandler of a handler\nfirst handler\n");
}

TEST(InitCode, HandsTheResultOfMainToTheParent) {
    for (const int code : {0, 1}) {
        Child child({.arguments = {"return", std::to_string(code)}});
        EXPECT_EQ(child.wait(), code);
    }
}

}  // namespace
