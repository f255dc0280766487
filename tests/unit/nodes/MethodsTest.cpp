#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"

#include "platform/nodes/InterfaceText.h"
#include "platform/nodes/Json.h"

namespace NodesTest {
namespace {

using Methods = ServiceTest;

TEST_F(Methods, DescribeTellsNodeServerAndNames) {
    EXPECT_EQ(
        Client(kNode).call(nodeCall("Describe")),
        R"({"parameters":{"node":"test/node","server":"TestServer","attributes":["NAME","RAW"],"actions":["ECHO"]}})");
}

TEST_F(Methods, GetReadsOneAttribute) {
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), stringReply("NAME", "node 7"));
}

TEST_F(Methods, GetOfAnUnknownAttributeGivesNoValues) {
    Client client(kNode);
    EXPECT_EQ(client.call(getCall("name")), R"({"parameters":{"values":[]}})");
    EXPECT_EQ(client.call(getCall("")), R"({"parameters":{"values":[]}})");
}

TEST_F(Methods, SetReachesTheServerAndGivesNoValues) {
    Client client(kNode);
    EXPECT_EQ(client.call(nodeCall("Set", R"({"values":[{"name":"NAME","kind":"string","text":"x"}]})")),
              R"({"parameters":{"values":[]}})");
    EXPECT_EQ(server().sets, 1);
}

TEST_F(Methods, ExecuteAnswersEachActionInOrder) {
    EXPECT_EQ(
        Client(kNode).call(executeCall({"ID", "NONE", "ID"})),
        R"({"parameters":{"values":[{"name":"ID","kind":"integer","integer":7},)"
        R"({"name":"NONE","kind":"string","text":"Invalid action"},{"name":"ID","kind":"integer","integer":7}]}})");
    EXPECT_EQ(Client(kNode).call(nodeCall("Execute", R"({"values":[]})")), R"({"parameters":{"values":[]}})");
}

TEST_F(Methods, ValuesOfEveryKindTravelBothWaysWithoutLoss) {
    const std::string values =
        R"([{"name":"ECHO","kind":"list","children":[{"name":"a","kind":"none"},)"
        R"({"name":"b","kind":"integer","integer":18446744073709551615},{"name":"c","kind":"string","text":"d\"\u0000\n"},)"
        R"({"kind":"integer","integer":0},{"name":"","kind":"string","text":""},{"kind":"list","children":[]}]}])";
    EXPECT_EQ(Client(kNode).call(nodeCall("Execute", "{\"values\":" + values + "}")),
              "{\"parameters\":{\"values\":" + values + "}}");
}

TEST_F(Methods, NegativeIntegersAreTheir64BitPattern) {
    EXPECT_EQ(Client(kNode).call(nodeCall("Execute", R"({"values":[{"name":"ECHO","kind":"integer","integer":-2}]})")),
              integerReply("ECHO", 18446744073709551614u));
}

TEST_F(Methods, AnAbsentNameStaysAbsent) {
    EXPECT_EQ(Client(kNode).call(nodeCall("Execute", R"({"values":[{"kind":"none"}]})")),
              R"({"parameters":{"values":[{"kind":"string","text":"Invalid action"}]}})");
}

TEST_F(Methods, NullFieldsOfValuesCountAsAbsent) {
    EXPECT_EQ(
        Client(kNode).call(nodeCall(
            "Execute", R"({"values":[{"name":"ECHO","kind":"string","text":"x","integer":null,"children":null}]})")),
        stringReply("ECHO", "x"));
    EXPECT_EQ(Client(kNode).call(nodeCall("Execute", R"({"values":[{"name":null,"kind":"none"}]})")),
              R"({"parameters":{"values":[{"kind":"string","text":"Invalid action"}]}})");
}

TEST_F(Methods, PayloadsOfAnotherKindAreDropped) {
    EXPECT_EQ(Client(kNode).call(nodeCall(
                  "Execute",
                  R"({"values":[{"name":"ECHO","kind":"none","text":"x","integer":1,"children":[{"kind":"none"}]}]})")),
              R"({"parameters":{"values":[{"name":"ECHO","kind":"none"}]}})");
}

TEST_F(Methods, TextThatIsNoUtf8ArrivesWithTheReplacementCharacter) {
    server().raw = "Vendor \xFF\xFE\xE2\x82 end";
    EXPECT_EQ(Client(kNode).call(getCall("RAW")),
              stringReply("RAW", "Vendor \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD end"));
}

TEST_F(Methods, OneIntegerParameterIsNotReadAsAFraction) {
    Client client(kNode);
    for (const char* number : {"1.0", "1e1", "18446744073709551616", "-9223372036854775809", "true", "\"1\"", "{}"}) {
        const std::string value = std::string(R"({"values":[{"kind":"integer","integer":)") + number + "}]}";
        EXPECT_EQ(client.call(nodeCall("Execute", value)), invalidParameter("integer")) << number;
    }
}

TEST_F(Methods, AbsentNullAndEmptyParametersAreEqual) {
    Client client(kNode);
    const std::string answer = client.call(nodeCall("Describe"));
    EXPECT_EQ(client.call(nodeCall("Describe", "null")), answer);
    EXPECT_EQ(client.call(nodeCall("Describe", "{}")), answer);
    for (const char* none : {"", "null", "{}"}) {
        EXPECT_EQ(client.call(nodeCall("Get", none)), invalidParameter("attribute"));
        EXPECT_EQ(client.call(nodeCall("Set", none)), invalidParameter("values"));
        EXPECT_EQ(client.call(nodeCall("Execute", none)), invalidParameter("values"));
        EXPECT_EQ(client.call(callText("org.varlink.service.GetInterfaceDescription", none)),
                  invalidParameter("interface"));
    }
}

TEST_F(Methods, AWrongParameterIsNamed) {
    Client client(kNode);
    EXPECT_EQ(client.call(nodeCall("Get", R"({"attribute":1})")), invalidParameter("attribute"));
    EXPECT_EQ(client.call(nodeCall("Get", R"({"attribute":null})")), invalidParameter("attribute"));
    EXPECT_EQ(client.call(nodeCall("Get", R"({"attribute":"NAME","extra":1})")), invalidParameter("extra"));
    EXPECT_EQ(client.call(nodeCall("Get", R"({"extra.dotted":1,"attribute":"NAME"})")),
              invalidParameter("extra.dotted"));
    EXPECT_EQ(client.call(nodeCall("Get", R"({"":null,"attribute":"NAME"})")), invalidParameter(""));
    EXPECT_EQ(client.call(nodeCall("Describe", R"({"node":"x"})")), invalidParameter("node"));
    EXPECT_EQ(client.call(nodeCall("Watch", R"({"x":1})", R"(,"more":true)")), invalidParameter("x"));
    EXPECT_EQ(client.call(callText("org.varlink.service.GetInfo", R"({"x":1})")), invalidParameter("x"));
    EXPECT_EQ(client.call(callText("org.varlink.service.GetInterfaceDescription", R"({"interface":[]})")),
              invalidParameter("interface"));
    EXPECT_EQ(client.call(nodeCall("Execute", R"({"values":{}})")), invalidParameter("values"));
    EXPECT_EQ(client.call(nodeCall("Execute", R"({"values":null})")), invalidParameter("values"));
    EXPECT_EQ(client.call(nodeCall("Execute", R"({"values":[1]})")), invalidParameter("values"));
    EXPECT_EQ(client.call(nodeCall("Execute", R"({"values":[null]})")), invalidParameter("values"));
    EXPECT_EQ(client.call(nodeCall("Execute", R"({"values":[],"x":1})")), invalidParameter("x"));
    EXPECT_EQ(server().begun().size(), 0u);
}

TEST_F(Methods, InsideValuesTheInnermostFieldIsNamed) {
    Client client(kNode);
    const auto executed = [&](const std::string& value) {
        return client.call(nodeCall("Execute", "{\"values\":[{\"kind\":\"none\"}," + value + "]}"));
    };
    const auto nested = [&](const std::string& value) {
        return executed(R"({"kind":"list","children":[{"kind":"none"},)" + value + "]}");
    };
    const std::pair<const char*, const char*> wrong[] = {
        {R"({})", "kind"},
        {R"({"kind":null})", "kind"},
        {R"({"kind":1})", "kind"},
        {R"({"kind":"None"})", "kind"},
        {R"({"kind":"integer"})", "integer"},
        {R"({"kind":"integer","integer":null})", "integer"},
        {R"({"kind":"integer","integer":"1"})", "integer"},
        {R"({"kind":"string"})", "text"},
        {R"({"kind":"string","text":null})", "text"},
        {R"({"kind":"string","text":5})", "text"},
        {R"({"kind":"list"})", "children"},
        {R"({"kind":"list","children":null})", "children"},
        {R"({"kind":"list","children":{}})", "children"},
        {R"({"kind":"list","children":["x"]})", "children"},
        {R"({"kind":"none","name":1})", "name"},
        {R"({"kind":"none","integer":"x"})", "integer"},
        {R"({"kind":"none","unknown":1})", "unknown"},
        {R"({"kind":"none","unknown":null})", "unknown"},
        {R"({"unknown":{"a":[{}]},"kind":7})", "unknown"},
    };
    for (const auto& [value, field] : wrong) {
        EXPECT_EQ(executed(value), invalidParameter(field)) << value;
        EXPECT_EQ(nested(value), invalidParameter(field)) << value;
    }
    EXPECT_EQ(server().begun().size(), 0u);
}

/// An Execute of ECHO whose values are nested to this depth.
std::string nestedCall(unsigned depth) {
    std::string open = R"({"name":"ECHO","kind":"list","children":[)";
    std::string text;
    for (unsigned at = 1; at < depth; ++at) text += open;
    text += R"({"kind":"none"})";
    for (unsigned at = 1; at < depth; ++at) text += "]}";
    return nodeCall("Execute", "{\"values\":[" + text + "]}");
}

TEST_F(Methods, ValuesMayBeNestedSixteenDeepAndNoDeeper) {
    Client client(kNode);
    EXPECT_TRUE(client.call(nestedCall(16)).starts_with(R"({"parameters":{"values":[{"name":"ECHO")"));
    EXPECT_EQ(server().begunCount("ECHO"), 1u);
    EXPECT_EQ(client.call(nestedCall(17)), invalidParameter("children"));
    EXPECT_EQ(client.call(nestedCall(4000)), invalidParameter("children"));
    EXPECT_EQ(client.call(getCall("NAME")), stringReply("NAME", "node 7"));
    EXPECT_EQ(server().begunCount("ECHO"), 1u);
}

TEST_F(Methods, AnEmptyListAtTheGreatestDepthIsTaken) {
    Client client(kNode);
    std::string call = nestedCall(16);
    const std::string leaf = R"({"kind":"none"})";
    call.replace(call.find(leaf), leaf.size(), R"({"kind":"list","children":[]})");
    EXPECT_TRUE(client.call(call).starts_with(R"({"parameters":)"));
}

TEST_F(Methods, UnknownInterfacesAndMethodsAreNamedAsCalled) {
    Client client(kNode);
    const auto noInterface = [](const char* name) {
        return errorText("org.varlink.service.InterfaceNotFound", "interface", name);
    };
    const auto noMethod = [](const char* name) {
        return errorText("org.varlink.service.MethodNotFound", "method", name);
    };
    EXPECT_EQ(client.call(callText("com.example.Get")), noInterface("com.example"));
    EXPECT_EQ(client.call(callText("com.kelvo.node.sub.Get")), noInterface("com.kelvo.node.sub"));
    EXPECT_EQ(client.call(callText("Com.kelvo.node.Get")), noInterface("Com.kelvo.node"));
    EXPECT_EQ(client.call(callText("Get")), noInterface("Get"));
    EXPECT_EQ(client.call(callText("")), noInterface(""));
    EXPECT_EQ(client.call(callText("com.kelvo.node.get")), noMethod("com.kelvo.node.get"));
    EXPECT_EQ(client.call(callText("com.kelvo.node.")), noMethod("com.kelvo.node."));
    EXPECT_EQ(client.call(callText("com.kelvo.node.GetInfo")), noMethod("com.kelvo.node.GetInfo"));
    EXPECT_EQ(client.call(callText("org.varlink.service.Get")), noMethod("org.varlink.service.Get"));
}

TEST_F(Methods, UpgradeIsAnsweredWithAnErrorAndTheConnectionGoesOn) {
    Client client(kNode);
    EXPECT_EQ(client.call(nodeCall("Describe", "", R"(,"upgrade":true)")),
              errorText("org.varlink.service.MethodNotImplemented", "method", "com.kelvo.node.Describe"));
    EXPECT_EQ(client.call(getCall("NAME")), stringReply("NAME", "node 7"));
}

TEST_F(Methods, MoreOnAMethodWithOneReplyGivesThatReply) {
    EXPECT_EQ(Client(kNode).call(nodeCall("Get", R"({"attribute":"NAME"})", R"(,"more":true)")),
              stringReply("NAME", "node 7"));
}

TEST_F(Methods, WatchWithoutMoreIsExpectedMore) {
    Client client(kNode);
    EXPECT_EQ(client.call(nodeCall("Watch")), errorText("org.varlink.service.ExpectedMore"));
    EXPECT_EQ(client.call(nodeCall("Watch", "", R"(,"more":false)")), errorText("org.varlink.service.ExpectedMore"));
    EXPECT_EQ(client.call(nodeCall("Watch", "", R"(,"more":null)")), errorText("org.varlink.service.ExpectedMore"));
}

TEST_F(Methods, EveryNodeServesTheServiceInterface) {
    Client client(kNode);
    const std::string info = client.call(callText("org.varlink.service.GetInfo"));
    EXPECT_NE(info.find(R"("interfaces":["org.varlink.service","com.kelvo.node"])"), std::string::npos) << info;
    for (const char* field : {"\"vendor\":\"", "\"product\":\"", "\"version\":\"", "\"url\":\""}) {
        EXPECT_NE(info.find(field), std::string::npos) << field;
    }
    const auto description = [&](const std::string& interface) {
        return client.call(
            callText("org.varlink.service.GetInterfaceDescription", "{\"interface\":\"" + interface + "\"}"));
    };
    const auto expected = [](std::string_view text) {
        std::string reply = "{\"parameters\":{\"description\":";
        Services::Nodes::appendJsonString(reply, text);
        return reply + "}}";
    };
    EXPECT_EQ(description("com.kelvo.node"), expected(Services::Nodes::kNodeInterfaceText));
    EXPECT_EQ(description("org.varlink.service"), expected(Services::Nodes::kServiceInterfaceText));
    EXPECT_EQ(description("com.example"),
              errorText("org.varlink.service.InterfaceNotFound", "interface", "com.example"));
}

TEST_F(Methods, DescriptionsDeclareWhatIsServed) {
    const std::string_view node = Services::Nodes::kNodeInterfaceText;
    EXPECT_TRUE(node.starts_with("# A node of the device tree"));
    for (const char* line :
         {"\ninterface com.kelvo.node\n",
          "\nmethod Describe() -> (node: string, server: string, attributes: []string, "
          "actions: []string)\n",
          "\nmethod Get(attribute: string) -> (values: []Value)\n",
          "\nmethod Set(values: []Value) -> (values: []Value)\n",
          "\nmethod Execute(values: []Value) -> (values: []Value)\n", "\nmethod Watch() -> (change: ?int)\n",
          "\nerror Withdrawn()\n", "\nerror Busy()\n", "\n  kind: (none, integer, string, list),\n"}) {
        EXPECT_NE(node.find(line), std::string_view::npos) << line;
    }
}

}  // namespace
}  // namespace NodesTest
