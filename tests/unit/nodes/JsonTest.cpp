#include "platform/nodes/Json.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using Services::Nodes::appendJsonString;
using Services::Nodes::JsonReader;
using Token = JsonReader::Token;

/// Whether the reader takes the whole text for JSON.
bool accepts(std::string_view text) {
    JsonReader reader;
    reader.reset(text);
    for (;;) {
        const Token token = reader.next();
        if (token == Token::End) return true;
        if (token == Token::Error) return reader.next() != Token::Error;
    }
}

/// The text of a string that is read from JSON; nothing when it is none.
std::optional<std::string> stringOf(const std::string& json) {
    JsonReader reader;
    reader.reset(json);
    if (reader.next() != Token::String) return {};
    std::string text(reader.text());
    return reader.next() == Token::End ? std::optional(text) : std::nullopt;
}

std::optional<std::uint64_t> integerOf(const std::string& json) {
    JsonReader reader;
    reader.reset(json);
    std::uint64_t value = 0;
    if (reader.next() != Token::Number || !reader.integer(value)) return {};
    return value;
}

std::string asJson(std::string_view text) {
    std::string out;
    appendJsonString(out, text);
    return out;
}

TEST(JsonReader, TakesEveryKindOfValueAndAllBlanks) {
    for (const char* text : {"{}", "[]", "\"\"", "0", "-0", "-1.5e+3", "1E9", "true", "false", "null", " \t\r\n{ } \n",
                             "[1,[2,{\"a\":[]}],\"b\"]", "{\"a\":1,\"b\":{\"a\":2}}", "[0.0,1e-2]"}) {
        EXPECT_TRUE(accepts(text)) << text;
    }
}

TEST(JsonReader, RefusesWhatIsNoJson) {
    for (const char* text : {"",
                             " ",
                             "{",
                             "}",
                             "[",
                             "]",
                             "{]",
                             "[}",
                             "[1,]",
                             "[,1]",
                             "[1 2]",
                             "{,}",
                             "{\"a\"}",
                             "{\"a\":}",
                             "{\"a\":1,}",
                             "{\"a\" 1}",
                             "{a:1}",
                             "{1:1}",
                             "{\"a\":1 \"b\":2}",
                             "{'a':1}",
                             "tru",
                             "True",
                             "nul",
                             "nan",
                             "01",
                             "-",
                             "+1",
                             ".5",
                             "1.",
                             "1.e1",
                             "1e",
                             "1e+",
                             "0x10",
                             "--1",
                             "\"",
                             "\"\\\"",
                             "\"\\x\"",
                             "\"\\u12\"",
                             "\"\\u12g4\"",
                             "{} {}",
                             "{}x",
                             "1 2",
                             "// c\n1",
                             "[1]]",
                             "\f1",
                             "\v1"}) {
        EXPECT_FALSE(accepts(text)) << text;
    }
}

TEST(JsonReader, RefusesControlCharactersInStrings) {
    for (char c = 1; c < 0x20; ++c) EXPECT_FALSE(accepts(std::string("\"a") + c + "\"")) << int{c};
    EXPECT_FALSE(accepts(std::string_view("\"\0\"", 3)));
    EXPECT_TRUE(accepts("\"\x7f\""));
}

TEST(JsonReader, RefusesWhatIsNoUtf8) {
    for (const char* bytes :
         {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC3", "\xC3(", "\xE0\x80\x80", "\xE2\x82", "\xED\xA0\x80",
          "\xED\xBF\xBF", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xFE"}) {
        EXPECT_FALSE(accepts(std::string("\"") + bytes + "\"")) << asJson(bytes);
        EXPECT_FALSE(accepts(std::string("{\"") + bytes + "\":1}")) << asJson(bytes);
    }
    EXPECT_EQ(stringOf("\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xEE\x80\x80\xEF\xBF\xBF\""),
              "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xEE\x80\x80\xEF\xBF\xBF");
}

TEST(JsonReader, RefusesAByteOrderMark) {
    EXPECT_FALSE(accepts("\xEF\xBB\xBF{}"));
    EXPECT_FALSE(accepts("{}\xEF\xBB\xBF"));
    EXPECT_TRUE(accepts("\"\xEF\xBB\xBF\""));
}

TEST(JsonReader, ResolvesEscapes) {
    EXPECT_EQ(stringOf(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
    EXPECT_EQ(stringOf(R"("a\u0041\u00e9\u20AC\ud83d\ude00z")"), "aA\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z");
    EXPECT_EQ(stringOf(R"("\u0000")"), std::string(1, '\0'));
    EXPECT_EQ(stringOf(R"("plain\ttab plain")"), "plain\ttab plain");
}

TEST(JsonReader, RefusesHalvesOfSurrogatePairs) {
    for (const char* text : {R"("\ud83d")", R"("\ude00")", R"("\ud83dx")", R"("\ud83d\n")", R"("\ud83d\ud83d")",
                             R"("\ude00\ud83d")", R"("\ud83d\u0041")"}) {
        EXPECT_FALSE(accepts(text)) << text;
    }
}

TEST(JsonReader, RefusesDuplicateKeysInAnyObject) {
    EXPECT_FALSE(accepts(R"({"a":1,"a":1})"));
    EXPECT_FALSE(accepts(R"({"a":1,"\u0061":2})"));
    EXPECT_FALSE(accepts(R"([{"b":{"a":1,"c":2,"a":3}}])"));
    EXPECT_FALSE(accepts(R"({"":1,"":2})"));
    EXPECT_TRUE(accepts(R"({"a":{"a":{"a":1}},"b":[{"a":1},{"a":1}]})"));
    EXPECT_TRUE(accepts(R"({"a":1,"A":2})"));
}

TEST(JsonReader, FindsDuplicatesAmongManyKeys) {
    const auto object = [](int count, const std::string& last) {
        std::string text = "{";
        for (int at = 0; at < count; ++at) text += "\"k" + std::to_string(at) + "\":0,";
        return text + "\"" + last + "\":0}";
    };
    for (const int count : {15, 16, 17, 1000}) {
        EXPECT_TRUE(accepts(object(count, "last"))) << count;
        EXPECT_FALSE(accepts(object(count, "k0"))) << count;
        EXPECT_FALSE(accepts(object(count, "k" + std::to_string(count - 1)))) << count;
    }
}

TEST(JsonReader, KeepsAll64BitsOfIntegers) {
    EXPECT_EQ(integerOf("0"), 0u);
    EXPECT_EQ(integerOf("-0"), 0u);
    EXPECT_EQ(integerOf("9007199254740993"), 9007199254740993u);
    EXPECT_EQ(integerOf("9223372036854775807"), 9223372036854775807u);
    EXPECT_EQ(integerOf("18446744073709551615"), 18446744073709551615u);
    EXPECT_EQ(integerOf("-1"), 18446744073709551615u);
    EXPECT_EQ(integerOf("-9223372036854775808"), 9223372036854775808u);
}

TEST(JsonReader, TakesNoOtherNumberForAnInteger) {
    for (const char* text :
         {"18446744073709551616", "-9223372036854775809", "1.0", "1e2", "0.5", "1E+2", "100000000000000000000000000"}) {
        EXPECT_EQ(integerOf(text), std::nullopt) << text;
        EXPECT_TRUE(accepts(text)) << text;
    }
}

TEST(JsonReader, ReadsAnyDepthToItsEnd) {
    const std::size_t depth = 200'000;
    EXPECT_TRUE(accepts(std::string(depth, '[') + std::string(depth, ']')));
    EXPECT_FALSE(accepts(std::string(depth, '[') + std::string(depth - 1, ']')));
    std::string objects;
    for (std::size_t at = 0; at < depth / 4; ++at) objects += "{\"a\":";
    EXPECT_TRUE(accepts(objects + "1" + std::string(depth / 4, '}')));
}

TEST(JsonReader, SkipsAWholeValue) {
    JsonReader reader;
    reader.reset(R"({"a":[1,{"b":[]}],"c":2})");
    ASSERT_EQ(reader.next(), Token::BeginObject);
    ASSERT_EQ(reader.next(), Token::Key);
    ASSERT_TRUE(reader.skip(reader.next()));
    ASSERT_EQ(reader.next(), Token::Key);
    EXPECT_EQ(reader.text(), "c");
    EXPECT_EQ(reader.next(), Token::Number);
    EXPECT_EQ(reader.next(), Token::EndObject);
    EXPECT_EQ(reader.next(), Token::End);
}

TEST(JsonReader, ForgetsOneTextForTheNext) {
    JsonReader reader;
    reader.reset("{\"a\":[1,");
    while (reader.next() != Token::Error) {
    }
    reader.reset("[\"\\n\"]");
    EXPECT_EQ(reader.next(), Token::BeginArray);
    EXPECT_EQ(reader.next(), Token::String);
    EXPECT_EQ(reader.text(), "\n");
    EXPECT_EQ(reader.next(), Token::EndArray);
    EXPECT_EQ(reader.next(), Token::End);
}

TEST(AppendJsonString, EscapesWhatMustBe) {
    EXPECT_EQ(asJson("a\"b\\c/d"), R"("a\"b\\c/d")");
    EXPECT_EQ(asJson(std::string_view("\0\x01\b\t\n\f\r\x1f\x7f", 9)), "\"\\u0000\\u0001\\b\\t\\n\\f\\r\\u001f\x7f\"");
    EXPECT_EQ(asJson("\xC3\xA9\xF0\x9F\x98\x80"), "\"\xC3\xA9\xF0\x9F\x98\x80\"");
    EXPECT_EQ(asJson(""), "\"\"");
}

TEST(AppendJsonString, ReplacesWhatIsNoUtf8) {
    const std::string mark = "\xEF\xBF\xBD";
    EXPECT_EQ(asJson("a\xFFz"), "\"a" + mark + "z\"");
    EXPECT_EQ(asJson("\x80\x80"), "\"" + mark + mark + "\"");
    EXPECT_EQ(asJson("\xE2\x82"), "\"" + mark + "\"");
    EXPECT_EQ(asJson("\xE2\x82z"), "\"" + mark + "z\"");
    EXPECT_EQ(asJson("\xF0\x9F\x98z"), "\"" + mark + "z\"");
    EXPECT_EQ(asJson("\xE0\x80\x80"), "\"" + mark + mark + mark + "\"");
    EXPECT_EQ(asJson("\xED\xA0\x80"), "\"" + mark + mark + mark + "\"");
    EXPECT_EQ(asJson("\xC3\xC3\xA9"), "\"" + mark + "\xC3\xA9\"");
    EXPECT_EQ(asJson("\xF4\x90\x80\x80"), "\"" + mark + mark + mark + mark + "\"");
}

TEST(AppendJsonString, WritesWhatTheReaderReads) {
    std::string all;
    for (int byte = 0; byte < 0x80; ++byte) all.push_back(static_cast<char>(byte));
    EXPECT_EQ(stringOf(asJson(all)), all);
}

}  // namespace
