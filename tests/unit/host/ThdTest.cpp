#include "platform/host/Thd.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

TEST(Thd, SleepsAtLeastAsLongAsItIsTold) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(Thd::sleep(25));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(25));
}

TEST(Thd, SleepsNoTimeAtAll) {
    EXPECT_TRUE(Thd::sleep(0));
}

}  // namespace
