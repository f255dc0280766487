#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"

namespace NodesTest {
namespace {

using Framing = ServiceTest;
using Malformed = ServiceTest;

const std::string kName = stringReply("NAME", "node 7");

TEST_F(Framing, AMessageMayComeByteByByte) {
    Client client(kNode);
    for (const char byte : getCall("NAME") + '\0') {
        EXPECT_FALSE(client.hasInput());
        client.sendBytes(std::string_view(&byte, 1));
        ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    }
    EXPECT_EQ(client.receive(), kName);
}

TEST_F(Framing, CallsMayBePipelinedAndAreAnsweredInOrder) {
    Client client(kNode);
    std::string bytes;
    for (int at = 0; at < 1000; ++at) {
        bytes += executeCall({"ECHO", std::to_string(at)}) + '\0';
        bytes += getCall("NAME") + '\0';
    }
    std::thread sender([&] { client.sendBytes(bytes); });
    for (int at = 0; at < 1000; ++at) {
        const std::string reply = client.receive().value_or("closed");
        EXPECT_NE(reply.find("{\"name\":\"" + std::to_string(at) + "\""), std::string::npos) << reply;
        EXPECT_EQ(client.receive(), kName);
    }
    sender.join();
}

TEST_F(Framing, MessagesMayBeCutAnywhere) {
    const std::string bytes = getCall("NAME") + '\0' + nodeCall("Watch") + '\0' + getCall("none") + '\0';
    for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
        Client client(kNode);
        client.sendBytes(bytes.substr(0, cut));
        ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
        client.sendBytes(bytes.substr(cut));
        EXPECT_EQ(client.receive(), kName);
        EXPECT_EQ(client.receive(), errorText("org.varlink.service.ExpectedMore"));
        EXPECT_EQ(client.receive(), R"({"parameters":{"values":[]}})");
    }
}

TEST_F(Framing, OnewayCallsAreCarriedOutAndNeverAnswered) {
    Client client(kNode);
    const std::string oneway = R"(,"oneway":true)";
    client.send(executeCall({"ECHO"}, oneway));
    client.send(nodeCall("Get", R"({"attribute":5})", oneway));
    client.send(nodeCall("None", "", oneway));
    client.send(callText("no.such.interface.Method", "", oneway));
    client.send(nodeCall("Watch", "", oneway));
    client.send(nodeCall("Describe", "", oneway));
    EXPECT_EQ(client.call(getCall("NAME")), kName);
    EXPECT_EQ(server().begunCount("ECHO"), 1u);
    EXPECT_FALSE(client.hasInput());
}

TEST_F(Framing, NullFlagsAndFalseFlagsCountAsAbsent) {
    Client client(kNode);
    EXPECT_EQ(client.call(nodeCall("Get", R"({"attribute":"NAME"})", R"(,"oneway":null,"more":null,"upgrade":null)")),
              kName);
    EXPECT_EQ(client.call(nodeCall("Get", R"({"attribute":"NAME"})", R"(,"oneway":false,"more":true,"upgrade":null)")),
              kName);
}

TEST_F(Framing, UnknownKeysWithADotAreLeftToExtensions) {
    Client client(kNode);
    const std::string extension = R"(,"com.example.trace":{"a":[1,{"b":null}]},"x.y":1)";
    EXPECT_EQ(client.call(nodeCall("Get", R"({"attribute":"NAME"})", extension)), kName);
}

TEST_F(Framing, BlanksAroundAMessageAndEscapedKeysAreJson) {
    Client client(kNode);
    EXPECT_EQ(client.call(" \r\n\t{ \"m\\u0065thod\" : \"com.kelvo.node.G\\u0065t\" , \"parameters\" : "
                          "{ \"attribut\\u0065\" : \"NAM\\u0045\" } } \n"),
              kName);
}

TEST_F(Framing, AHalfClosedConnectionGetsItsRepliesBeforeItIsClosed) {
    Client client(kNode);
    client.send(executeCall({"WAIT"}));
    ASSERT_TRUE(waitUntil([&] { return server().waiting == 1; }));
    client.send(getCall("NAME"));
    client.halfClose();
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    EXPECT_EQ(client.receive(), kName);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Framing, HalfClosingRightAfterTheCallLosesNothing) {
    for (int round = 0; round < 200; ++round) {
        Client client(kNode);
        client.send(getCall("NAME"));
        client.halfClose();
        ASSERT_EQ(client.receive(), kName);
        ASSERT_TRUE(client.isClosed());
    }
}

TEST_F(Framing, HalfClosingInTheMiddleOfAMessageEndsTheConnection) {
    Client client(kNode);
    client.send(getCall("NAME"));
    client.sendBytes("{\"method\":");
    client.halfClose();
    EXPECT_EQ(client.receive(), kName);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Framing, LargeRepliesArriveWhole) {
    Client client(kNode);
    const std::size_t size = 5'000'000;
    const std::string call =
        nodeCall("Execute", R"({"values":[{"name":"BIG","kind":"integer","integer":)" + std::to_string(size) + "}]}");
    EXPECT_EQ(client.call(call), stringReply("BIG", std::string(size, 'x')));
    EXPECT_EQ(client.call(getCall("NAME")), kName);
}

TEST_F(Framing, DescriptorsThatAreSentAlongAreClosedAndTheCallIsServed) {
    Client client(kNode);
    ASSERT_EQ(client.call(getCall("NAME")), kName);
    const std::size_t before = descriptorCount();
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const std::string messages = getCall("NAME") + '\0' + getCall("none") + '\0';
    for (int round = 0; round < 10; ++round) {
        iovec part{const_cast<char*>(messages.data()), messages.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(3 * sizeof(int))] = {};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        cmsghdr* const passed = CMSG_FIRSTHDR(&header);
        passed->cmsg_level = SOL_SOCKET;
        passed->cmsg_type = SCM_RIGHTS;
        passed->cmsg_len = CMSG_LEN(3 * sizeof(int));
        const int descriptors[3] = {ends[1], ends[1], ends[1]};
        std::memcpy(CMSG_DATA(passed), descriptors, sizeof descriptors);
        ASSERT_EQ(::sendmsg(client.socket(), &header, 0), static_cast<ssize_t>(messages.size()));
        // A read ends at the descriptors: what follows must be found all the same.
        client.send(getCall("NAME"));
        EXPECT_EQ(client.receive(), kName);
        EXPECT_EQ(client.receive(), R"({"parameters":{"values":[]}})");
        EXPECT_EQ(client.receive(), kName);
    }
    EXPECT_EQ(descriptorCount(), before + 2);
    // With our own two ends closed nobody else has one: the pipe is at its end.
    ::close(ends[1]);
    char byte = 0;
    EXPECT_EQ(::read(ends[0], &byte, 1), 0);
    ::close(ends[0]);
}

TEST_F(Malformed, ClosesTheConnectionWithoutAReply) {
    using namespace std::string_literals;
    const std::string good = R"("method":"com.kelvo.node.Describe")";
    const std::string cases[] = {
        "",
        " ",
        "x",
        "{",
        "{}",
        "[]",
        "null",
        "\"com.kelvo.node.Describe\"",
        "[{" + good + "}]",
        "{" + good + "} {}",
        "{" + good + "}x",
        "{" + good + ",}",
        "\xEF\xBB\xBF{" + good + "}",
        "{" + good + ",\"a.b\":\"\xFF\"}",
        "{" + good + ",\"a.b\":\"\xED\xA0\x80\"}",
        "{" + good + ",\"a.b\":\"\\ud800\"}",
        "{" + good + ",\"a.b\":\"\t\"}",
        "{" + good + "," + good + "}",
        "{" + good + ",\"parameters\":{},\"parameters\":{}}",
        "{" + good + ",\"oneway\":true,\"oneway\":true}",
        "{" + good + ",\"parameters\":{\"a\":1,\"a\":1}}",
        "{" + good + ",\"a.b\":1,\"a.b\":1}",
        "{" + good + ",\"a.b\":{\"c\":1,\"c\":1}}",
        "{" + good + ",\"unknown\":1}",
        "{" + good + ",\"unknown\":null}",
        "{" + good + ",\"Method\":\"x\"}",
        "{" + good + ",\"continues\":true}",
        "{\"parameters\":{}}",
        "{\"method\":null}",
        "{\"method\":5}",
        "{\"method\":{}}",
        "{" + good + ",\"oneway\":1}",
        "{" + good + ",\"oneway\":\"true\"}",
        "{" + good + ",\"more\":0}",
        "{" + good + ",\"upgrade\":{}}",
        "{" + good + ",\"more\":[]}",
        "{" + good + ",\"oneway\":true,\"more\":true}",
        "{" + good + ",\"oneway\":true,\"upgrade\":true}",
        "{" + good + ",\"more\":true,\"upgrade\":true}",
        "{" + good + ",\"parameters\":[]}",
        "{" + good + ",\"parameters\":\"\"}",
        "{" + good + ",\"parameters\":0}",
        "{" + good + ",\"parameters\":false}",
    };
    for (const std::string& text : cases) {
        Client client(kNode);
        client.send(text);
        EXPECT_TRUE(client.isClosed()) << text;
    }
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
}

TEST_F(Malformed, CallsAheadAreAnsweredAndNoneBehind) {
    Client client(kNode);
    client.sendBytes(getCall("NAME") + '\0' + executeCall({"ECHO"}) + '\0' + "{}" + '\0' + executeCall({"ECHO"}) +
                     '\0');
    EXPECT_EQ(client.receive(), kName);
    EXPECT_TRUE(client.receive().has_value());
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(server().begunCount("ECHO"), 1u);
}

TEST_F(Malformed, CallsAheadThatTakeTimeAreAnsweredFirst) {
    Client client(kNode);
    client.send(executeCall({"WAIT"}));
    ASSERT_TRUE(waitUntil([&] { return server().waiting == 1; }));
    client.sendBytes(getCall("NAME") + '\0' + "nonsense" + '\0' + executeCall({"ECHO"}, R"(,"oneway":true)") + '\0');
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    EXPECT_FALSE(client.hasInput());
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    EXPECT_EQ(client.receive(), kName);
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(server().begunCount("ECHO"), 0u);
}

TEST_F(Malformed, AMalformedOnewayCallClosesToo) {
    Client client(kNode);
    client.send(R"({"oneway":true,"method":7})");
    EXPECT_TRUE(client.isClosed());
}

}  // namespace
}  // namespace NodesTest
