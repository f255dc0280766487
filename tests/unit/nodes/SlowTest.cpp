#include <sys/socket.h>

#include <algorithm>
#include <thread>

#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"
#include "tests/unit/support/LogCapture.h"

namespace NodesTest {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string kName = stringReply("NAME", "node 7");

class TimeLimits : public ServiceTest {
protected:
    void block(Client& client) {
        const int before = server().waiting;
        client.send(executeCall({"WAIT"}));
        ASSERT_TRUE(waitUntil([&] { return server().waiting == before + 1; }));
    }
};

// The times are the limits' own, so all that takes ten seconds is in one test, side by side.
TEST_F(TimeLimits, TenSecondsForAMessageAndForAReplyThatIsNotRead) {
    UnitTest::LogCapture log;
    const std::string call = getCall("NAME") + '\0';
    Client idle(kNode);
    ASSERT_EQ(idle.call(getCall("NAME")), kName);

    Client silent(kNode);
    Client dripping(kNode);
    Client unread(kNode);
    Client unreading(kNode);
    Client reading(kNode);
    Client behind(kNode);
    const Clock::time_point begin = Clock::now();
    silent.sendBytes("{\"method\"");
    dripping.sendBytes(call.substr(0, 1));
    // A partial message that the service leaves unread has all the time it needs.
    block(unread);
    std::string pending;
    for (int at = 2; at <= 64; ++at) pending += call;
    unread.sendBytes(pending);
    ASSERT_TRUE(waitUntil([&] { return unread.isAllRead(); }));
    unread.sendBytes(call.substr(0, 20));
    // A partial message behind a request has not, but the request is answered.
    block(behind);
    behind.sendBytes(call.substr(0, 20));
    const std::string big = nodeCall("Execute", R"({"values":[{"name":"BIG","kind":"integer","integer":3000000}]})");
    unreading.send(big);
    reading.send(big);

    char bytes[20'000];
    std::size_t dripped = 1;
    std::size_t taken = 0;
    Clock::duration silentEnd{};
    Clock::duration drippingEnd{};
    for (Clock::duration now{}; now < 13s; now = Clock::now() - begin) {
        if (silentEnd == 0s && silent.hasInput()) silentEnd = now;
        if (drippingEnd == 0s && dripping.hasInput()) drippingEnd = now;
        if (drippingEnd == 0s && now > dripped * 500ms) dripping.sendBytes(call.substr(dripped++, 1));
        const ssize_t size = ::recv(reading.socket(), bytes, sizeof bytes, MSG_DONTWAIT);
        if (size > 0) taken += static_cast<std::size_t>(size);
        std::this_thread::sleep_for(200ms);
    }
    for (const Clock::duration end : {silentEnd, drippingEnd}) {
        EXPECT_GE(end, 9500ms);
        EXPECT_LE(end, 12s);
    }
    EXPECT_TRUE(silent.isClosed());
    EXPECT_TRUE(dripping.isClosed());

    // Closed in the middle of the reply.
    while (unreading.receive(0ms)) {
    }
    EXPECT_FALSE(unreading.receive());
    // This one has taken its time, but it took.
    EXPECT_LT(taken, 2'700'000u);
    const std::string rest = reading.receive().value_or("");
    EXPECT_EQ(taken + rest.size(), stringReply("BIG", std::string(3'000'000, 'x')).size());

    EXPECT_EQ(idle.call(getCall("NAME")), kName);
    EXPECT_FALSE(behind.hasInput());
    server().post(2);
    EXPECT_EQ(behind.receive(), integerReply("WAIT", 0));
    EXPECT_TRUE(behind.isClosed());
    EXPECT_EQ(unread.receive(), integerReply("WAIT", 0));
    for (int at = 2; at <= 64; ++at) EXPECT_EQ(unread.receive(), kName);
    unread.sendBytes(call.substr(20));
    EXPECT_EQ(unread.receive(), kName);

    std::vector<std::string> records = log.records("Nodes");
    std::sort(records.begin(), records.end());
    const std::string late = "3 Connection at its limit: test/node: a message took too long";
    EXPECT_EQ(records,
              (std::vector<std::string>{late, late, late, "3 Connection at its limit: test/node: replies are not read",
                                        "3 Connection at its limit: test/node: too many calls are pending"}));
}

TEST_F(TimeLimits, ThreadsThatACrowdNeededEndWhenAllIsIdle) {
    ASSERT_TRUE(service_.stop());
    const std::size_t alone = threadCount();
    TestService service("Crowded");
    service.add("crowded/node", 7);
    ASSERT_EQ(Client("crowded/node").call(getCall("NAME")), kName);
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < 50; ++count) {
        clients.push_back(std::make_unique<Client>("crowded/node"));
        clients.back()->send(executeCall({"WAIT"}));
    }
    ASSERT_TRUE(waitUntil([&] { return service.server().waiting == 50; }));
    EXPECT_GT(threadCount(), 50u);
    service.server().post(50);
    for (const auto& client : clients) EXPECT_EQ(client->receive(), integerReply("WAIT", 0));
    // This one, those a sanitizer has, and two that wait for events.
    EXPECT_TRUE(waitUntil([&] { return threadCount() <= alone + 2; })) << threadCount();
    for (const auto& client : clients) EXPECT_EQ(client->call(getCall("NAME")), kName);
}

}  // namespace
}  // namespace NodesTest
