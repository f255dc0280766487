#include <thread>

#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"

namespace NodesTest {
namespace {

const std::string kName = stringReply("NAME", "node 7");

/// Requests that block, and what waits behind them.
class Blocking : public ServiceTest {
protected:
    /// A connection on which a request waits for the server's gate.
    void block(Client& client, const char* action = "WAIT", const char* more = "") {
        const int before = server().waiting;
        client.send(executeCall({action}, more));
        ASSERT_TRUE(waitUntil([&] { return server().waiting == before + 1; }));
    }
};

TEST_F(Blocking, ARequestThatBlocksHoldsUpNobodyElse) {
    Client blocked(kNode);
    block(blocked);
    Client other(kNode);
    for (int round = 0; round < 100; ++round) ASSERT_EQ(other.call(getCall("NAME")), kName);
    EXPECT_FALSE(blocked.hasInput());
    server().post();
    EXPECT_EQ(blocked.receive(), integerReply("WAIT", 0));
}

TEST_F(Blocking, LaterCallsOfItsConnectionWaitTheirTurn) {
    Client client(kNode);
    block(client);
    client.send(executeCall({"ECHO"}));
    client.send(getCall("NAME"));
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    EXPECT_EQ(server().begunCount("ECHO"), 0u);
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    EXPECT_EQ(client.receive(), R"({"parameters":{"values":[{"name":"ECHO","kind":"none"}]}})");
    EXPECT_EQ(client.receive(), kName);
}

TEST_F(Blocking, SixtyFourCallsMayBePendingAndTheNextStaysUnread) {
    Client client(kNode);
    block(client);
    for (int call = 2; call <= 64; ++call) client.send(getCall("NAME"));
    EXPECT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    client.send(executeCall({"ECHO"}));
    // The server looks at this connection again for each thing that comes in; that the call stays unread shows when
    // somebody else, who came later, was served.
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    EXPECT_FALSE(client.isAllRead());
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    for (int call = 2; call <= 64; ++call) EXPECT_EQ(client.receive(), kName);
    EXPECT_EQ(client.receive(), R"({"parameters":{"values":[{"name":"ECHO","kind":"none"}]}})");
}

TEST_F(Blocking, TheCallPastThePendingOnesStaysUnreadHoweverTheyAreSent) {
    std::string calls = executeCall({"WAIT"}) + '\0';
    for (int call = 2; call <= 64; ++call) calls += getCall("NAME") + '\0';
    Client client(kNode);
    client.sendBytes(calls);
    client.send(executeCall({"ECHO"}));
    client.send(executeCall({"ECHO"}));
    ASSERT_TRUE(waitUntil([&] { return server().waiting == 1; }));
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    EXPECT_FALSE(client.isAllRead());
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    for (int call = 2; call <= 64; ++call) EXPECT_EQ(client.receive(), kName);
    EXPECT_TRUE(client.receive().has_value());
    EXPECT_TRUE(client.receive().has_value());
}

TEST_F(Blocking, WhatIsLeftUnreadStopsTheClientNotTheServer) {
    Client client(kNode);
    block(client);
    // Far more than any buffer: the kernel takes what it holds, the server no more than its limits.
    const std::string call = getCall("none") + '\0';
    std::string many;
    for (int copies = 0; copies < 50'000; ++copies) many += call;
    const std::size_t taken = client.offer(many);
    EXPECT_LT(taken, many.size() / 2);
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    if (taken % call.size() != 0) client.sendBytes(std::string_view(call).substr(taken % call.size()));
    for (std::size_t at = 0; at < taken; at += call.size()) {
        ASSERT_EQ(client.receive(), R"({"parameters":{"values":[]}})");
    }
    EXPECT_EQ(client.call(getCall("NAME")), kName);
}

TEST_F(Blocking, LargeCallsBehindARequestAreReadUpToALimitInBytes) {
    Client client(kNode);
    block(client);
    const std::string large = nodeCall("Get", "{\"attribute\":\"" + std::string(200 * 1024, 'a') + "\"}") + '\0';
    std::string all;
    for (int call = 0; call < 20; ++call) all += large;
    std::size_t taken = 0;
    ASSERT_TRUE(waitUntil([&] {
        const std::size_t more = client.offer(std::string_view(all).substr(taken));
        taken += more;
        EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
        return more == 0;
    }));
    EXPECT_GT(taken, 256u * 1024);
    EXPECT_LT(taken, 4 * 512u * 1024);
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    client.sendBytes(std::string_view(all).substr(taken));
    for (int call = 0; call < 20; ++call) ASSERT_EQ(client.receive(), R"({"parameters":{"values":[]}})");
}

TEST_F(Blocking, BehindARequest256KiBOfCallsAreReadAndNotOneByteMore) {
    constexpr std::size_t kReadAheadBytes = 256 * 1024;
    const std::string call = getCall(std::string(100'000, 'a')) + '\0';
    const std::string calls = call + call + call;
    Client client(kNode);
    block(client);
    client.sendBytes(std::string_view(calls).substr(0, kReadAheadBytes - 1));
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    client.sendBytes(std::string_view(calls).substr(kReadAheadBytes - 1, 1));
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    client.sendBytes(std::string_view(calls).substr(kReadAheadBytes, 1));
    // Somebody else, who came later, is served, and still it is unread.
    for (int round = 0; round < 10; ++round) EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    EXPECT_FALSE(client.isAllRead());
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    client.sendBytes(std::string_view(calls).substr(kReadAheadBytes + 1));
    for (int at = 0; at < 3; ++at) EXPECT_EQ(client.receive(), R"({"parameters":{"values":[]}})");
}

TEST_F(Blocking, WhatBehindARequestCrossesTheLimitInBytesIsReadInPart) {
    constexpr std::size_t kReadAheadBytes = 256 * 1024;
    const std::string call = getCall(std::string(100'000, 'a')) + '\0';
    const std::string calls = call + call + call;
    Client client(kNode);
    block(client);
    client.sendBytes(std::string_view(calls).substr(0, kReadAheadBytes - 1));
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    client.sendBytes(std::string_view(calls).substr(kReadAheadBytes - 1, 2));
    for (int round = 0; round < 10; ++round) EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    EXPECT_FALSE(client.isAllRead());
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    client.sendBytes(std::string_view(calls).substr(kReadAheadBytes + 1));
    for (int at = 0; at < 3; ++at) EXPECT_EQ(client.receive(), R"({"parameters":{"values":[]}})");
}

TEST_F(Blocking, IdleConnectionsCostNoThread) {
    Client first(kNode);
    EXPECT_EQ(first.call(getCall("NAME")), kName);
    const std::size_t before = threadCount();
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < 300; ++count) {
        clients.push_back(std::make_unique<Client>(kNode));
        ASSERT_EQ(clients.back()->call(getCall("NAME")), kName);
    }
    // A busy machine needs a few more at a time, as a thread that is put off while it serves has to be followed; how
    // many are left when all is idle is a test of its own (TimeLimits).
    EXPECT_LT(threadCount(), before + clients.size() / 4);
}

TEST_F(Blocking, AHangUpEndsTheWaitAndFreesTheThread) {
    for (const char* action : {"WAIT", "SLEEP"}) {
        const int interrupted = server().interrupted;
        Client client(kNode);
        block(client, action);
        client.hangUp();
        EXPECT_TRUE(waitUntil([&] { return server().interrupted == interrupted + 1; })) << action;
        EXPECT_TRUE(waitUntil([&] { return server().waiting == 0; })) << action;
    }
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
}

TEST_F(Blocking, AHalfClosedClientStillWaits) {
    Client client(kNode);
    block(client);
    client.halfClose();
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    EXPECT_EQ(server().interrupted, 0);
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Blocking, AHalfClosedClientThatThenHangsUpWaitsNoMore) {
    Client client(kNode);
    block(client);
    client.halfClose();
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
    client.hangUp();
    EXPECT_TRUE(waitUntil([&] { return server().interrupted == 1; }));
}

TEST_F(Blocking, AfterAHangUpCallsThatWereNotBegunAreDropped) {
    Client client(kNode);
    block(client);
    client.send(executeCall({"ECHO"}));
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    client.hangUp();
    ASSERT_TRUE(waitUntil([&] { return server().interrupted == 1; }));
    service_.remove(kNode);
    ASSERT_TRUE(service_.stop());
    EXPECT_EQ(server().begunCount("ECHO"), 0u);
}

TEST_F(Blocking, AfterAHangUpOnewayCallsSentBeforeAreCarriedOut) {
    Client client(kNode);
    block(client);
    client.send(executeCall({"first"}, R"(,"oneway":true)"));
    client.send(executeCall({"dropped"}));
    client.send(executeCall({"second"}, R"(,"oneway":true)"));
    client.hangUp();
    EXPECT_TRUE(waitUntil([&] { return server().begunCount("second") == 1; }));
    EXPECT_EQ(server().begun(), (std::vector<std::string>{"WAIT", "first", "second"}));
}

TEST_F(Blocking, OnewayCallsPastThePendingOnesAreCarriedOutAfterAHangUpToo) {
    Client client(kNode);
    block(client);
    std::string calls;
    for (int call = 0; call < 500; ++call) calls += executeCall({"dropped"}) + '\0';
    for (int call = 0; call < 200; ++call) calls += executeCall({"oneway"}, R"(,"oneway":true)") + '\0';
    client.sendBytes(calls);  // at once: the kernel holds far fewer small pieces that nobody reads
    client.hangUp();
    EXPECT_TRUE(waitUntil([&] { return server().begunCount("oneway") == 200; }));
    EXPECT_EQ(server().begunCount("dropped"), 0u);
}

TEST_F(Blocking, AnOnewayCallSentRightBeforeAHangUpIsCarriedOut) {
    for (int round = 1; round <= 200; ++round) {
        Client client(kNode);
        client.send(executeCall({"oneway"}, R"(,"oneway":true)"));
        client.hangUp();
        ASSERT_TRUE(waitUntil([&] { return server().begunCount("oneway") == static_cast<std::size_t>(round); }));
    }
}

TEST_F(Blocking, AfterAHangUpAOnewayCallGoesOnButWaitsForNothingEndless) {
    // Served when the client hangs up: the sleep goes on, the semaphore does not.
    Client sleeps(kNode);
    block(sleeps, "PLAIN", R"(,"oneway":true)");
    Client waits(kNode);
    block(waits, "WAIT", R"(,"oneway":true)");
    waits.hangUp();
    sleeps.hangUp();
    EXPECT_TRUE(waitUntil([&] { return server().interrupted == 1; }));
    EXPECT_EQ(server().waiting, 1);
    // Begun after the hang-up: the same.
    Client late(kNode);
    block(late);
    late.send(executeCall({"WAIT"}, R"(,"oneway":true)"));
    late.hangUp();
    EXPECT_TRUE(waitUntil([&] { return server().interrupted == 3; }));
}

TEST_F(Blocking, HangUpsOfManyLeaveNothingBehind) {
    ASSERT_EQ(Client(kNode).call(getCall("NAME")), kName);
    const std::size_t descriptors = descriptorCount();
    for (int round = 0; round < 10; ++round) {
        std::vector<std::unique_ptr<Client>> clients;
        for (int count = 0; count < 20; ++count) {
            clients.push_back(std::make_unique<Client>(kNode));
            clients.back()->send(executeCall({"WAIT"}));
        }
        ASSERT_TRUE(waitUntil([&] { return server().waiting == 20; }));
        clients.clear();
        ASSERT_TRUE(waitUntil([&] { return server().waiting == 0; }));
    }
    EXPECT_TRUE(waitUntil([&] { return descriptorCount() <= descriptors; }));
}

}  // namespace
}  // namespace NodesTest
