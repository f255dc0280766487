#include "simulator/Value.h"

#include <gtest/gtest.h>

#include "simulator/ValueText.h"

namespace SimulatorTests {

namespace {

using namespace Simulator;

std::string again(const std::string& signature, const std::string& text) {
    std::string error;
    const auto value = parseValue(signature, text, error);
    return value ? toText(*value) : "error: " + error;
}

bool isRefused(const std::string& signature, const std::string& text) {
    std::string error;
    const bool isValue = parseValue(signature, text, error).has_value();
    EXPECT_EQ(isValue, error.empty()) << signature << " " << text;
    return !isValue;
}

TEST(ValueText, ReadsAndWritesEachType) {
    EXPECT_EQ(again("s", "two words: [x], y"), "\"two words: [x], y\"");
    EXPECT_EQ(again("s", "\"a\\\"b\\\\c\\n\\x07\""), "\"a\\\"b\\\\c\\x0a\\x07\"");
    EXPECT_EQ(again("s", ""), "\"\"");
    EXPECT_EQ(again("o", "/org/bluez"), "\"/org/bluez\"");
    EXPECT_EQ(again("b", "true"), "true");
    EXPECT_EQ(again("y", "0xff"), "255");
    EXPECT_EQ(again("n", "-32768"), "-32768");
    EXPECT_EQ(again("u", "4294967295"), "4294967295");
    EXPECT_EQ(again("x", "-9223372036854775808"), "-9223372036854775808");
    EXPECT_EQ(again("t", "18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(again("d", "1.5"), "1.5");
    EXPECT_EQ(again("as", "[a, \"b c\"]"), "[\"a\", \"b c\"]");
    EXPECT_EQ(again("as", "[]"), "[]");
    EXPECT_EQ(again("(su)", "(x, 5)"), "(\"x\", 5)");
    EXPECT_EQ(again("v", "u:5"), "u:5");
    EXPECT_EQ(again("v", "s:any thing, at all"), "s:\"any thing, at all\"");
    EXPECT_EQ(again("a{sv}", "{Alias: s:Desk, Paired: b:true}"), "{\"Alias\": s:\"Desk\", \"Paired\": b:true}");
    EXPECT_EQ(again("a{oa{sa{sv}}}", "{/a: {x.y: {Z: v:u:1}}}"), "{\"/a\": {\"x.y\": {\"Z\": v:u:1}}}");
}

TEST(ValueText, RefusesWhatIsNoSuchValue) {
    for (const auto& [signature, text] : std::initializer_list<std::pair<const char*, const char*>>{
             {"y", "256"},        {"y", "-1"},        {"n", "32768"},    {"q", "65536"},
             {"i", "2147483648"}, {"u", "-1"},        {"t", "-1"},       {"x", "9223372036854775808"},
             {"u", ""},           {"u", "0x"},        {"u", "12x"},      {"u", "99999999999999999999"},
             {"b", "1"},          {"d", "one"},       {"as", "[a"},      {"as", "a"},
             {"as", "[a b]"},     {"(su)", "(x)"},    {"(su)", "(x, 5"}, {"v", "5"},
             {"v", "(:5"},        {"v", "ss:x"},      {"a{sv}", "{x}"},  {"a{sv}", "{x: u}"},
             {"s", "\"open"},     {"s", "\"\\x1\""},  {"u", "5 6"},      {"", "x"},
             {"ss", "x"},         {"a", "[]"},        {"()", "()"},      {"(s", "(x)"},
             {"a{vs}", "{}"},     {"{sv}", "x: u:1"}, {"h", "3"},        {"a{s}", "{}"},
             {"z", "x"}}) {
        EXPECT_TRUE(isRefused(signature, text)) << signature << " " << text;
    }
}

TEST(ValueText, RefusesNestingWithoutEnd) {
    std::string text;
    for (int depth = 0; depth < 10000; ++depth) text += "v:";
    EXPECT_TRUE(isRefused("v", text + "u:1"));
    EXPECT_TRUE(isRefused(std::string(10000, 'a') + "s", std::string(10000, '[')));
}

TEST(ValueText, SplitsSignatures) {
    EXPECT_EQ(completeTypes("ossa{sv}(a(sa{sv})b)"),
              (std::vector<std::string>{"o", "s", "s", "a{sv}", "(a(sa{sv})b)"}));
    EXPECT_TRUE(completeTypes("").empty());
    EXPECT_TRUE(completeTypes("s(").empty());
}

TEST(NamedValuesTest, PutReplacesInPlaceAndAddsAtTheEnd) {
    NamedValues values{{"a", Value::uint32(1)}, {"b", Value::uint32(2)}};
    put(values, {{"c", Value::uint32(3)}, {"a", Value::string("new")}});
    EXPECT_EQ(toText(dictionary(values)), "{\"a\": s:\"new\", \"b\": u:2, \"c\": u:3}");
    EXPECT_EQ(find(values, "d"), nullptr);
}

}  // namespace

}  // namespace SimulatorTests
