#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "platform/host/LogLine.h"
#include "tests/unit/nodes/Child.h"
#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"
#include "tests/unit/support/LogCapture.h"

namespace NodesTest {
namespace {

const std::string kName = stringReply("NAME", "node 7");
const std::string kBusy = errorText("com.kelvo.node.Busy");

class Limits : public ServiceTest {
protected:
    /// Clients, each with a request that waits.
    std::vector<std::unique_ptr<Client>> blocked(int count, const char* action) {
        std::vector<std::unique_ptr<Client>> clients;
        const int before = server().waiting;
        for (int at = 0; at < count; ++at) {
            clients.push_back(std::make_unique<Client>(kNode));
            clients.back()->send(executeCall({action}));
        }
        EXPECT_TRUE(waitUntil([&] { return server().waiting == before + count; }));
        return clients;
    }

    std::size_t records(std::string_view text) const {
        const std::vector<std::string> all = log_.records("Nodes");
        return static_cast<std::size_t>(std::count_if(
            all.begin(), all.end(), [&](const std::string& record) { return record.find(text) != std::string::npos; }));
    }

    UnitTest::LogCapture log_;
};

/// A Get whose message has this many bytes.
std::string getOfSize(std::size_t bytes) {
    return getCall(std::string(bytes - getCall("").size(), 'a'));
}

constexpr std::size_t kMessageBytes = 256 * 1024;
constexpr std::size_t kBacklogBytes = 256 * 1024;
const std::string kNoValues = R"({"parameters":{"values":[]}})";

TEST_F(Limits, AMessageOf256KiBIsTaken) {
    Client client(kNode);
    EXPECT_EQ(client.call(getOfSize(kMessageBytes)), kNoValues);
    EXPECT_EQ(client.call(getCall("NAME")), kName);
}

TEST_F(Limits, AMessageOfOneByteMoreClosesAndIsLogged) {
    Client client(kNode);
    client.send(getOfSize(kMessageBytes + 1));
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(records("3 Connection at its limit: test/node: a message is too long"), 1u);
}

TEST_F(Limits, AMessageThatGetsTooLongClosesBeforeItsEnd) {
    Client client(kNode);
    client.sendBytes(getOfSize(kMessageBytes));
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    EXPECT_FALSE(client.hasInput());
    client.sendBytes("x");
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Limits, CallsAheadOfAMessageThatIsTooLongAreAnswered) {
    Client client(kNode);
    client.sendBytes(getCall("NAME") + '\0' + getOfSize(kMessageBytes + 1));
    EXPECT_EQ(client.receive(), kName);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Limits, ValuesNestedTooDeepAreLoggedOnceForAConnection) {
    Client client(kNode);
    std::string text = R"({"kind":"none"})";
    for (int depth = 2; depth <= 17; ++depth) text = R"({"kind":"list","children":[)" + text + "]}";
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(client.call(nodeCall("Execute", "{\"values\":[" + text + "]}")), invalidParameter("children"));
    }
    EXPECT_EQ(records("test/node: values are nested too deep"), 1u);
}

TEST_F(Limits, TooManyPendingCallsAreLoggedOnceForAConnection) {
    const auto clients = blocked(1, "WAIT");
    for (int call = 2; call <= 66; ++call) clients[0]->send(getCall("NAME"));
    EXPECT_TRUE(waitUntil([&] { return records("test/node: too many calls are pending") == 1; }));
    server().post();
    for (int call = 1; call <= 66; ++call) EXPECT_TRUE(clients[0]->receive().has_value());
    EXPECT_EQ(records("test/node: too many calls are pending"), 1u);
}

TEST_F(Limits, AsManyPendingCallsAsThereMayBeAreNotLoggedWhenTheClientSendsNoMoreEither) {
    const auto clients = blocked(2, "WAIT");
    for (const auto& client : clients) {
        for (int call = 2; call <= 64; ++call) client->send(getCall("NAME"));
        EXPECT_TRUE(waitUntil([&] { return client->isAllRead(); }));
    }
    clients[0]->halfClose();
    for (int round = 0; round < 10; ++round) EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    clients[1]->hangUp();
    EXPECT_TRUE(waitUntil([&] { return server().interrupted == 1; }));
    server().post();
    EXPECT_EQ(clients[0]->receive(), integerReply("WAIT", 0));
    for (int call = 2; call <= 64; ++call) EXPECT_EQ(clients[0]->receive(), kName);
    EXPECT_TRUE(clients[0]->isClosed());
    EXPECT_EQ(records("too many calls are pending"), 0u);
}

TEST_F(Limits, Of256RequestsAllAreServedAndTheNextIsBusy) {
    Services::Nodes::requestOnTermination(String::create("test/urgent"), String::create("STOP"));
    service_.add("test/urgent", 9);
    auto clients = blocked(255, "WAIT");
    Client client(kNode);
    EXPECT_EQ(client.call(getCall("NAME")), kName);
    clients.push_back(std::move(blocked(1, "WAIT")[0]));

    EXPECT_EQ(client.call(getCall("NAME")), kBusy);
    EXPECT_EQ(client.call(nodeCall("Set", R"({"values":[]})")), kBusy);
    EXPECT_EQ(client.call(executeCall({"ECHO", "ECHO"})), kBusy);
    EXPECT_EQ(server().begunCount("ECHO"), 0u);
    EXPECT_EQ(records("test/node: too many requests are in progress"), 1u);
    // Never busy: what does not go to the server's attributes and actions, and the way to end the process.
    EXPECT_TRUE(client.call(nodeCall("Describe")).starts_with(R"({"parameters":{"node":)"));
    EXPECT_TRUE(client.call(callText("org.varlink.service.GetInfo")).starts_with(R"({"parameters":{"vendor":)"));
    EXPECT_EQ(Client("test/urgent").call(executeCall({"ID"})), integerReply("ID", 9));
    EXPECT_EQ(Client(kNode).call(nodeCall("Watch", "", R"(,"more":true)")), R"({"parameters":{},"continues":true})");

    server().post();
    EXPECT_TRUE(waitUntil([&] { return client.call(getCall("NAME")) == kName; }));
    server().post(255);
    for (const auto& one : clients) EXPECT_EQ(one->receive(), integerReply("WAIT", 0));
}

TEST_F(Limits, ABusyOnewayCallIsDropped) {
    const auto clients = blocked(256, "WAIT");
    Client client(kNode);
    client.send(executeCall({"ECHO"}, R"(,"oneway":true)"));
    EXPECT_EQ(client.call(getCall("NAME")), kBusy);
    EXPECT_EQ(server().begunCount("ECHO"), 0u);
    server().post(256);
    for (const auto& one : clients) EXPECT_TRUE(one->receive().has_value());
}

TEST_F(Limits, Of64RequestsInBusCallsAllAreServedAndTheNextIsBusyAsAWhole) {
    auto clients = blocked(63, "BUS");
    const auto waiting = blocked(5, "WAIT");  // no bus calls
    clients.push_back(std::move(blocked(1, "BUS")[0]));
    Client client(kNode);
    EXPECT_EQ(client.call(executeCall({"ECHO", "BUS", "ECHO"})), kBusy);
    EXPECT_EQ(client.call(executeCall({"BUS"})), kBusy);
    EXPECT_EQ(records("test/node: too many requests are in progress"), 1u);
    EXPECT_EQ(client.call(getCall("NAME")), kName);
    server().post(70);
    for (const auto& one : clients) EXPECT_EQ(one->receive(), integerReply("BUS", 0));
    for (const auto& one : waiting) EXPECT_EQ(one->receive(), integerReply("WAIT", 0));
    EXPECT_EQ(client.call(executeCall({"BUS"})), integerReply("BUS", 0));
}

std::string bigCall(std::size_t bytes) {
    return nodeCall("Execute",
                    R"({"values":[{"name":"BIG","kind":"integer","integer":)" + std::to_string(bytes) + "}]}");
}

TEST_F(Limits, RepliesThatAreNotReadAreKeptToALimitThenTheConnectionIsClosed) {
    Client client(kNode);
    const std::size_t size = 100'000;
    for (int call = 0; call < 60; ++call) client.send(bigCall(size));
    EXPECT_TRUE(waitUntil([&] { return records("test/node: replies are not read") == 1; }));
    EXPECT_LT(server().begunCount("BIG"), 60u);
    std::size_t whole = 0;
    while (const auto reply = client.receive()) {
        EXPECT_EQ(*reply, stringReply("BIG", std::string(size, 'x')));
        ++whole;
    }
    EXPECT_LT(whole, server().begunCount("BIG"));
}

/// Bytes that the kernel holds for a client.
std::size_t unreadBytes(const Client& client) {
    int unread = 0;
    EXPECT_EQ(::ioctl(client.socket(), FIONREAD, &unread), 0);
    return static_cast<std::size_t>(unread);
}

TEST_F(Limits, RepliesThatAreNotReadMayBeAsManyBytesAsTheLimitAndNotOneMore) {
    const std::string part = stringReply("BIG", std::string(50'000, 'x'));
    const std::size_t frame = stringReply("BIG", "").size() + 1;
    for (const std::size_t past : {0u, 1u}) {
        Client client(kNode);
        const auto sendBig = [&](std::size_t bytes) {
            const std::size_t echoes = server().begunCount("ECHO");
            client.send(bigCall(bytes - frame));
            // Begun when the reply before it has been sent, or kept; it has none itself.
            client.send(executeCall({"ECHO"}, R"(,"oneway":true)"));
            return waitUntil(
                [&] { return server().begunCount("ECHO") > echoes || records("replies are not read") > 0; });
        };
        // What the kernel does not take is kept, and from then on all of it.
        std::size_t sent = 0;
        do {
            ASSERT_TRUE(sendBig(part.size() + 1));
            sent += part.size() + 1;
        } while (sent == unreadBytes(client));
        const std::size_t kept = sent - unreadBytes(client);
        ASSERT_TRUE(sendBig(kBacklogBytes - kept + past));
        EXPECT_EQ(records("test/node: replies are not read"), past);
        // One byte more, and what was kept is lost: only what the kernel had arrives.
        const std::size_t whole = (past == 0 ? sent : sent - kept) / (part.size() + 1);
        for (std::size_t at = 0; at < whole; ++at) ASSERT_EQ(client.receive(), part);
        if (past == 0) {
            EXPECT_EQ(client.receive(), stringReply("BIG", std::string(kBacklogBytes - kept - frame, 'x')));
            EXPECT_EQ(client.call(getCall("NAME")), kName);
        } else {
            EXPECT_FALSE(client.receive());
        }
    }
}

TEST_F(Limits, ChangesThatAWatchDoesNotReadMayBeAsManyBytesAsTheLimitAndNotOneMore) {
    constexpr std::uint64_t kLongest = 10'000'000'000'000'000'000u;
    const auto sizeOf = [](std::uint64_t change) {
        return R"({"parameters":{"change":},"continues":true})" + std::to_string(change) + '\0';
    };
    for (const std::size_t past : {0u, 1u}) {
        Client client(kNode);
        client.send(nodeCall("Watch", "", R"(,"more":true)"));
        ASSERT_EQ(client.receive(), R"({"parameters":{},"continues":true})");
        std::size_t sent = 0;
        const auto change = [&](std::uint64_t argument) {
            service_.kept(kNode).changed(argument);
            sent += sizeOf(argument).size();
        };
        const auto room = [&] { return kBacklogBytes + past - (sent - unreadBytes(client)); };
        const std::size_t longest = sizeOf(kLongest).size();
        const std::size_t shortest = sizeOf(0).size();
        while (sent == unreadBytes(client) || room() > 4 * longest) change(kLongest);
        // Four more, of lengths that together are the rest.
        EXPECT_EQ(records("replies are not read"), 0u);
        for (std::size_t left = 4; left > 0; --left) {
            std::uint64_t argument = 1;
            for (std::size_t size = shortest; size < room() / left; ++size) argument *= 10;
            change(argument);
        }
        EXPECT_EQ(records("test/node: replies are not read"), past);
        EXPECT_EQ(room(), 0u);
    }
}

TEST_F(Limits, OneLargerReplyMayStandAndTheNextCallWaitsForItsClient) {
    Client client(kNode);
    client.send(bigCall(3'000'000));
    client.send(executeCall({"ECHO"}));
    ASSERT_TRUE(waitUntil([&] { return server().begunCount("BIG") == 1 && client.hasInput(); }));
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    EXPECT_EQ(server().begunCount("ECHO"), 0u);
    EXPECT_EQ(client.receive(), stringReply("BIG", std::string(3'000'000, 'x')));
    EXPECT_EQ(client.receive(), R"({"parameters":{"values":[{"name":"ECHO","kind":"none"}]}})");
    EXPECT_EQ(records("replies are not read"), 0u);
}

/// How many of `count` new connections to the node are served.
std::size_t servedOf(std::size_t count, const std::string& node, std::vector<std::unique_ptr<Client>>& clients) {
    std::size_t served = 0;
    for (std::size_t at = 0; at < count; ++at) {
        clients.push_back(std::make_unique<Client>(node));
        if (clients.back()->call(getCall("none")) == kNoValues) ++served;
    }
    return served;
}

using ConnectionLimits = TreeTest;

TEST_F(ConnectionLimits, Of512InAllEachIsServedAndMoreAreClosedAtOnce) {
    Child child({"serve", "Child", "test/one", "test/two"});
    ASSERT_EQ(child.line(), "ready");
    std::vector<std::unique_ptr<Client>> clients;
    EXPECT_EQ(servedOf(256, "test/one", clients), 256u);
    EXPECT_EQ(servedOf(256, "test/two", clients), 256u);
    EXPECT_TRUE(Client("test/one").isClosed());
    EXPECT_TRUE(Client("test/two").isClosed());
    clients.pop_back();
    EXPECT_TRUE(waitUntil([] { return Client("test/one").call(getCall("none")) == kNoValues; }));
    clients.clear();
    EXPECT_EQ(child.end(), 0);
    EXPECT_FALSE(child.line());
    EXPECT_GE(child.records().size(), 2u);
    for (const std::string& record : child.records()) {
        EXPECT_NE(record.find("Connection refused: test/"), std::string::npos) << record;
        EXPECT_TRUE(record.ends_with(": too many connections, user " + LogLine::number(::geteuid()))) << record;
    }
}

TEST_F(ConnectionLimits, ThreeQuartersOfTheDescriptorsAtMost) {
    Child child({"limited", "64", "test/node"});
    ASSERT_EQ(child.line(), "ready");
    std::vector<std::unique_ptr<Client>> clients;
    EXPECT_EQ(servedOf(48, "test/node", clients), 48u);
    EXPECT_TRUE(Client("test/node").isClosed());
    EXPECT_EQ(child.end(), 0);
}

TEST_F(ConnectionLimits, WhoIsRefusedReadsTheEndOfTheStreamThoughItHasSentACall) {
    Child child({"limited", "64", "test/node"});
    ASSERT_EQ(child.line(), "ready");
    std::vector<std::unique_ptr<Client>> clients;
    ASSERT_EQ(servedOf(48, "test/node", clients), 48u);
    // Stopped, so that the calls are there before the connections are accepted.
    child.signal(SIGSTOP);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child.process()), &info, WSTOPPED), 0);
    std::vector<std::unique_ptr<Client>> refused;
    for (int count = 0; count < 5; ++count) {
        refused.push_back(std::make_unique<Client>("test/node"));
        refused.back()->send(getCall("none"));
    }
    child.signal(SIGCONT);
    for (const auto& client : refused) EXPECT_TRUE(client->isClosed());
    EXPECT_EQ(child.end(), 0);
}

TEST_F(ConnectionLimits, WithoutDescriptorsAConnectionIsClosedAtOnceToo) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "UBSan's look at an object's type opens a pipe, and takes a failure for a wrong type";
#endif
    Child child({"limited", "20", "test/node"});
    ASSERT_EQ(child.line(), "ready");
    std::vector<std::unique_ptr<Client>> clients;
    const std::size_t served = servedOf(20, "test/node", clients);
    EXPECT_GE(served, 1u);
    EXPECT_LT(served, 15u);
    for (std::size_t at = served; at < clients.size(); ++at) EXPECT_TRUE(clients[at]->isClosed());
    clients.clear();
    EXPECT_TRUE(waitUntil([] { return Client("test/node").call(getCall("none")) == kNoValues; }));
    EXPECT_EQ(child.end(), 0);
}

TEST_F(ConnectionLimits, WithoutThreadsRequestsAreServedOneAtATimeAndTheOthersAreBusy) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs the right to become another user";
    constexpr uid_t kUser = 65533;
    ASSERT_EQ(::chown(folder_.path().c_str(), kUser, kUser), 0);
    Child child({"threadless", std::to_string(kUser), "test/node"});
    ASSERT_EQ(child.line(), "ready");
    const std::string name = stringReply("NAME", "node 1");
    Client client("test/node");
    // The thread that gave an answer may still be on its way back when the next call comes: then that is refused.
    const auto served = [&] { return client.call(getCall("NAME")) == name; };
    for (int round = 0; round < 10; ++round) EXPECT_TRUE(waitUntil(served));
    Client blocked("test/node");
    blocked.send(executeCall({"WAIT"}));
    EXPECT_TRUE(waitUntil([&] {
        if (blocked.hasInput()) {
            EXPECT_EQ(blocked.receive(), kBusy);
            blocked.send(executeCall({"WAIT"}));
        }
        return client.call(getCall("NAME")) == kBusy;
    }));
    EXPECT_TRUE(client.call(nodeCall("Describe")).starts_with(R"({"parameters":{"node":)"));
    EXPECT_TRUE(client.call(callText("org.varlink.service.GetInfo")).starts_with(R"({"parameters":{"vendor":)"));
    EXPECT_EQ(Client("urgent").call(executeCall({"ID"})), integerReply("ID", 2));
    blocked.hangUp();
    EXPECT_TRUE(waitUntil(served));
    EXPECT_EQ(child.end(), 0);
}

TEST_F(ConnectionLimits, OneUserHas128AndTheOwnUserIsBoundByTheTotalOnly) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs the right to become another user";
    Child child({"serve", "Child", "test/node"});
    ASSERT_EQ(child.line(), "ready");
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(pathOf("test/node").c_str(), 0666), 0);
    Child others({"connect", "65534", "129", "test/node"});
    EXPECT_EQ(others.line(), "128");
    Child third({"connect", "65533", "128", "test/node"});
    EXPECT_EQ(third.line(), "128");
    std::vector<std::unique_ptr<Client>> clients;
    EXPECT_EQ(servedOf(150, "test/node", clients), 150u);
    EXPECT_EQ(others.end(), 0);
    EXPECT_EQ(third.end(), 0);
    clients.clear();
    EXPECT_TRUE(waitUntil([] {
        Child again({"connect", "65534", "1", "test/node"});
        return again.line() == "1";
    }));
    EXPECT_EQ(child.end(), 0);
}

}  // namespace
}  // namespace NodesTest
