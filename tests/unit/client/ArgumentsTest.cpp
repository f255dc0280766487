#include "client/cli/Arguments.h"

#include <gtest/gtest.h>

namespace btnode::cli {
namespace {

std::vector<Value> parsed(const std::vector<std::string>& words) {
    auto actions = parseActions(words);
    return actions ? *actions : std::vector{Value::of("failed", actions.error().message)};
}

Value only(const std::vector<std::string>& words) {
    return parsed(words).front();
}

Value integer(std::int64_t number) {
    return Value::of({}, number);
}
Value string(const std::string& text) {
    return Value::of({}, text);
}

/// The value that a word stands for.
Value valueOf(const std::string& word) {
    Value action = only({"A", word});
    if (action.name == "A") action.name.reset();
    return action;
}

TEST(Arguments, AnActionAloneCarriesNothing) {
    EXPECT_EQ(only({"STOP"}), Value::none("STOP"));
}

TEST(Arguments, OneBareValueIsTheActionsOwn) {
    EXPECT_EQ(only({"ACTIVATE_PROFILE", "s:0x1100"}), Value::of("ACTIVATE_PROFILE", std::string("0x1100")));
    EXPECT_EQ(only({"A", "7"}), Value::of("A", std::int64_t{7}));
}

TEST(Arguments, NamedValuesAreOptions) {
    EXPECT_EQ(only({"CONNECT", "TIMEOUT=30000"}), Value::list("CONNECT", {Value::of("TIMEOUT", std::int64_t{30000})}));
    EXPECT_EQ(only({"A", "x=1", "y=z"}),
              Value::list("A", {Value::of("x", std::int64_t{1}), Value::of("y", std::string("z"))}));
}

TEST(Arguments, SeveralValuesAreOptionsWithAndWithoutNames) {
    EXPECT_EQ(only({"A", "1", "x=2"}), Value::list("A", {integer(1), Value::of("x", std::int64_t{2})}));
}

TEST(Arguments, APlusBeginsTheNextAction) {
    EXPECT_EQ(parsed({"A", "1", "+", "B", "+", "C", "x=2"}),
              (std::vector{Value::of("A", std::int64_t{1}), Value::none("B"),
                           Value::list("C", {Value::of("x", std::int64_t{2})})}));
}

TEST(Arguments, ReadsNumbers) {
    EXPECT_EQ(valueOf("42"), integer(42));
    EXPECT_EQ(valueOf("-7"), integer(-7));
    EXPECT_EQ(valueOf("0x110b"), integer(0x110b));
    EXPECT_EQ(valueOf("0"), integer(0));
    EXPECT_EQ(valueOf("i:-0X1f"), integer(-31));
    EXPECT_EQ(valueOf("9223372036854775807"), integer(INT64_MAX));
    EXPECT_EQ(valueOf("-9223372036854775808"), integer(INT64_MIN));
    EXPECT_EQ(valueOf("i:007"), integer(7));
}

TEST(Arguments, WhatIsNoNumberIsAString) {
    for (const char* word : {"0000", "1a", "0x", "1.5", "-", "--", "+1", "", "00:11:22:33:44:55", "a b"}) {
        EXPECT_EQ(valueOf(word), string(word)) << word;
    }
}

TEST(Arguments, AMarkedStringIsTakenAsItIs) {
    EXPECT_EQ(valueOf("s:42"), string("42"));
    EXPECT_EQ(valueOf("s:[1]"), string("[1]"));
    EXPECT_EQ(valueOf("s:x=1"), string("x=1"));
    EXPECT_EQ(valueOf("s:"), string(""));
}

TEST(Arguments, ReadsQuotedStringsWithTheirEscapes) {
    EXPECT_EQ(valueOf(R"("a, \"b\" \u00fc")"), string("a, \"b\" ü"));
    EXPECT_EQ(valueOf(R"("42")"), string("42"));
}

TEST(Arguments, ReadsLists) {
    EXPECT_EQ(valueOf("[]"), Value::list({}, {}));
    EXPECT_EQ(valueOf("[1, s:2 ,three]"), Value::list({}, {integer(1), string("2"), string("three")}));
    EXPECT_EQ(valueOf(R"([x=1,["a,]b",none]])"),
              Value::list({}, {Value::of("x", std::int64_t{1}), Value::list({}, {string("a,]b"), Value::none()})}));
    EXPECT_EQ(valueOf("class=[1]"), Value::list({}, {Value::list("class", {integer(1)})}));
}

TEST(Arguments, NoneIsNothing) {
    EXPECT_EQ(valueOf("x=none"), Value::list({}, {Value::none("x")}));
}

TEST(Arguments, RefusesWhatItCannotRead) {
    const std::vector<std::vector<std::string>> wrong = {{},
                                                         {"+"},
                                                         {"A", "+"},
                                                         {"A", "+", "+", "B"},
                                                         {""},
                                                         {"A", "[1"},
                                                         {"A", "[1,"},
                                                         {"A", "[1]x"},
                                                         {"A", "[\"a\" b]"},
                                                         {"A", "\"a"},
                                                         {"A", "[["},
                                                         {"A", "i:x"},
                                                         {"A", "i:"},
                                                         {"A", "99999999999999999999"},
                                                         {"A", "\"\\x\""},
                                                         {"A", "i:0x10000000000000000"}};
    for (const auto& words : wrong) {
        const auto actions = parseActions(words);
        ASSERT_FALSE(actions) << testing::PrintToString(words);
        EXPECT_EQ(actions.error().kind, ErrorKind::Invalid);
    }
}

TEST(Arguments, NestsAsDeepAsANodeTakes) {
    // The action is the first level, so fifteen lists fit with nothing in the innermost one.
    const auto lists = [](int count) {
        return std::string(static_cast<std::size_t>(count), '[') + std::string(static_cast<std::size_t>(count), ']');
    };
    EXPECT_TRUE(parseActions({"A", "x=" + lists(kMaxDepth - 1)}));
    EXPECT_FALSE(parseActions({"A", "x=" + lists(kMaxDepth)}));
    EXPECT_FALSE(parseActions({"A", lists(100'000)}));
}

}  // namespace
}  // namespace btnode::cli
