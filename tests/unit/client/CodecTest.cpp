#include "btnode/Codec.h"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>
#include <limits>

namespace btnode {
namespace {

namespace json = boost::json;

std::vector<Value> decoded(const std::string& values) {
    const auto reply = codec::decodeReply(R"({"parameters":{"values":)" + values + "}}");
    if (!reply) return {Value::of("failed", reply.error().message)};
    const auto list = codec::valuesOf(reply->parameters, "values");
    return list ? *list : std::vector{Value::of("failed", list.error().message)};
}

std::vector<Value> carried(const std::vector<Value>& values) {
    return decoded(std::string(json::serialize(codec::toJson(values))));
}

ErrorKind kindOf(const std::string& message) {
    const auto reply = codec::decodeReply(message);
    if (!reply) return reply.error().kind;
    if (reply->error) return codec::errorOf(*reply).kind;
    const auto values = codec::valuesOf(reply->parameters, "values");
    return values ? ErrorKind::System : values.error().kind;
}

TEST(Codec, CarriesEveryKindOfValue) {
    const std::vector<Value> values = {Value::none("NOTHING"), Value::of("NUMBER", std::int64_t{42}),
                                       Value::of("TEXT", std::string("a \"b\" \n ü")),
                                       Value::list("LIST", {Value::of({}, std::int64_t{1}), Value::list("INNER", {})})};
    EXPECT_EQ(carried(values), values);
}

TEST(Codec, CarriesIntegersInFull) {
    for (const std::int64_t number :
         {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1}, std::int64_t{4294967295},
          std::int64_t{9007199254740993}, std::numeric_limits<std::int64_t>::max()}) {
        EXPECT_EQ(carried({Value::of("N", number)}).front().integer, number);
    }
}

TEST(Codec, ReadsIntegersAsAServiceWritesThem) {
    EXPECT_EQ(decoded(R"([{"kind":"integer","integer":18446744073709551615}])"),
              std::vector{Value::of({}, std::int64_t{-1})});
    EXPECT_EQ(decoded(R"([{"kind":"integer","integer":9223372036854775808}])"),
              std::vector{Value::of({}, std::numeric_limits<std::int64_t>::min())});
    EXPECT_EQ(kindOf(R"({"parameters":{"values":[{"kind":"integer","integer":18446744073709551616}]}})"),
              ErrorKind::Protocol);
}

TEST(Codec, KeepsAnAbsentNameAndAnEmptyOneApart) {
    const auto values = carried({Value::of({}, std::int64_t{1}), Value::of("", std::int64_t{1})});
    EXPECT_EQ(values[0].name, std::nullopt);
    EXPECT_EQ(values[1].name, "");
}

TEST(Codec, KeepsANulInsideAText) {
    const std::string text("a\0b", 3);
    EXPECT_EQ(carried({Value::of("T", text)}).front().text, text);
}

TEST(Codec, TakesNullForAnAbsentMember) {
    const auto values = decoded(R"([{"name":null,"kind":"integer","integer":7,"text":null,"children":null}])");
    EXPECT_EQ(values, std::vector{Value::of({}, std::int64_t{7})});
}

TEST(Codec, TakesValuesNestedAsDeepAsANodeAnswers) {
    Value value = Value::of("bottom", std::int64_t{1});
    for (int depth = 1; depth < kMaxDepth; ++depth) value = Value::list("level", {value});
    EXPECT_EQ(depthOf(value), kMaxDepth);
    EXPECT_EQ(carried({value}), std::vector{value});
}

TEST(Codec, RefusesAValueWithoutThePayloadOfItsKind) {
    for (const char* value :
         {R"({"kind":"integer"})", R"({"kind":"string"})", R"({"kind":"list"})", R"({"name":"x"})",
          R"({"kind":"integer","integer":"7"})", R"({"kind":"integer","integer":7.5})", R"({"kind":"string","text":7})",
          R"({"kind":"list","children":{}})", R"({"kind":"list","children":[7]})", R"({"kind":"colour"})",
          R"({"kind":4})", R"({"kind":"none","name":7})", "7"}) {
        EXPECT_EQ(kindOf(std::string(R"({"parameters":{"values":[)") + value + "]}}"), ErrorKind::Protocol) << value;
    }
}

TEST(Codec, RefusesWhatIsNoReply) {
    for (const char* message : {"", "7", "[]", "{", R"({"parameters":7})", R"({"error":7})", R"({"continues":"yes"})",
                                R"({"parameters":{}})", R"({"parameters":{"values":{}}})", "{} {}", "\xff"}) {
        EXPECT_EQ(kindOf(message), ErrorKind::Protocol) << message;
    }
}

TEST(Codec, TellsTheErrorsOfANodeApart) {
    EXPECT_EQ(kindOf(R"({"error":"com.kelvo.node.Busy"})"), ErrorKind::Busy);
    EXPECT_EQ(kindOf(R"({"error":"com.kelvo.node.Withdrawn","parameters":{}})"), ErrorKind::Gone);
    EXPECT_EQ(kindOf(R"({"error":"org.varlink.service.MethodNotFound","parameters":{"method":"x"}})"),
              ErrorKind::Refused);
    const auto reply =
        codec::decodeReply(R"({"error":"org.varlink.service.InvalidParameter","parameters":{"parameter":"kind"}})");
    EXPECT_NE(codec::errorOf(*reply).message.find("'kind'"), std::string::npos);
}

TEST(Codec, WritesACallWithItsNul) {
    EXPECT_EQ(codec::encodeCall("Get", {{"attribute", "NAME"}}, false),
              std::string(R"({"method":"com.kelvo.node.Get","parameters":{"attribute":"NAME"}})") + '\0');
    EXPECT_EQ(codec::encodeCall("Watch", {}, true),
              std::string(R"({"method":"com.kelvo.node.Watch","more":true})") + '\0');
}

TEST(Codec, KnowsWhatIsUtf8) {
    for (const char* good :
         {"", "abc", "\xc3\xbc", "\xe2\x82\xac", "\xf0\x9f\x8e\xa7", "\xed\x9f\xbf", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(codec::isUtf8(good)) << good;
    }
    for (const char* bad : {"\x80", "\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                            "\xf5\x80\x80\x80", "\xe2\x82", "a\xff", "\xf0\x80\x80\x80"}) {
        EXPECT_FALSE(codec::isUtf8(bad)) << bad;
    }
}

TEST(Codec, SendsNoTextThatIsNotUtf8) {
    EXPECT_FALSE(codec::checkSendable({Value::list("A", {Value::of({}, std::string("\xff"))})}));
    EXPECT_FALSE(codec::checkSendable({Value::none("\xff")}));
    EXPECT_TRUE(codec::checkSendable({Value::none("A")}));
}

}  // namespace
}  // namespace btnode
