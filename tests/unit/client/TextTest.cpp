#include "client/cli/Text.h"

#include <gtest/gtest.h>

#include "client/cli/Json.h"

namespace btnode::cli {
namespace {

TEST(Text, EscapesWhatSteersATerminal) {
    EXPECT_EQ(sanitised("a\x1b[31mb\x07\n\tc\x7f"), "a\\x1b[31mb\\x07\\x0a\\x09c\\x7f");
    EXPECT_EQ(sanitised(std::string_view("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(sanitised("\xc2\x9b"), "\\x9b");
    EXPECT_EQ(sanitised("\xe2\x80\xae"
                        "drawkcab\xe2\x80\xa8"),
              "\\u{202e}drawkcab\\u{2028}");
}

TEST(Text, LeavesNamesAsTheyAre) {
    for (const char* name : {"", "Müller's Köpfhörer", "キーボード", "🎧", "back\\slash"})
        EXPECT_EQ(sanitised(name), name);
}

TEST(Text, ReplacesWhatIsNoUtf8) {
    EXPECT_EQ(sanitised("a\xff\xc3"), "a\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(asUtf8("\xe2\x82\n"), "\xef\xbf\xbd\xef\xbf\xbd\n");
    EXPECT_EQ(asUtf8("ü\n"), "ü\n");
}

TEST(Text, CountsColumns) {
    EXPECT_EQ(displayWidth("abc"), 3U);
    EXPECT_EQ(displayWidth("ü"), 1U);
    EXPECT_EQ(displayWidth("e\xcc\x81"), 1U);
    EXPECT_EQ(displayWidth("キー"), 4U);
    EXPECT_EQ(displayWidth("🎧"), 2U);
}

TEST(Text, ClipsToColumns) {
    EXPECT_EQ(clipped("abc", 3), "abc");
    EXPECT_EQ(clipped("abcd", 3), "ab…");
    EXPECT_EQ(clipped("キーボ", 5), "キー…");
    EXPECT_EQ(clipped("キーボ", 4), "キ…");
    EXPECT_EQ(clipped("abc", 0), "");
}

TEST(Text, AlignsColumnsByWhatIsSeen) {
    Table table;
    table.row({"キー", "x", "last"});
    table.row({"a", "", "b"});
    table.row({"a"});
    EXPECT_EQ(table.lines(), (std::vector<std::string>{"キー  x  last", "a        b", "a"}));
}

TEST(Text, PrettyJsonIsIndented) {
    const boost::json::value value = {{"a", {1, "x"}}, {"b", boost::json::object()}, {"c", nullptr}};
    EXPECT_EQ(prettyJson(value), "{\n  \"a\": [\n    1,\n    \"x\"\n  ],\n  \"b\": {},\n  \"c\": null\n}");
    EXPECT_EQ(shortJson(value), R"({"a":[1,"x"],"b":{},"c":null})");
}

}  // namespace
}  // namespace btnode::cli
