#include <thread>

#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"

namespace NodesTest {
namespace {

const std::string kFirst = R"({"parameters":{},"continues":true})";
const std::string kWithdrawn = errorText("com.kelvo.node.Withdrawn");

std::string changeReply(std::uint64_t argument) {
    return "{\"parameters\":{\"change\":" + std::to_string(argument) + "},\"continues\":true}";
}

class Watch : public ServiceTest {
protected:
    void watch(Client& client) { ASSERT_EQ(client.call(nodeCall("Watch", "", R"(,"more":true)")), kFirst); }
};

TEST_F(Watch, FirstReplyComesAtOnceAndWithoutAChange) {
    Client client(kNode);
    watch(client);
    EXPECT_FALSE(client.hasInput());
}

TEST_F(Watch, EachChangeIsOneReplyWithTheServersArgument) {
    Client client(kNode);
    watch(client);
    for (const std::uint64_t argument : {0ull, 0ull, 5ull, 18446744073709551615ull}) {
        service_.kept(kNode).changed(argument);
        EXPECT_EQ(client.receive(), changeReply(argument));
    }
}

TEST_F(Watch, ChangesAreNotMerged) {
    Client client(kNode);
    watch(client);
    std::thread changer([&] {
        for (std::uint64_t change = 0; change < 2000; ++change) service_.kept(kNode).changed(change);
    });
    for (std::uint64_t change = 0; change < 2000; ++change) ASSERT_EQ(client.receive(), changeReply(change));
    changer.join();
    EXPECT_FALSE(client.hasInput());
}

TEST_F(Watch, ChangesBeforeTheWatchAndOfOtherNodesAreNotTold) {
    service_.add("test/other", 8);
    service_.kept(kNode).changed(1);
    Client client(kNode);
    watch(client);
    service_.kept("test/other").changed(2);
    service_.kept(kNode).changed(3);
    EXPECT_EQ(client.receive(), changeReply(3));
}

TEST_F(Watch, AnyNumberOfClientsMayWatch) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < 50; ++count) {
        clients.push_back(std::make_unique<Client>(kNode));
        watch(*clients.back());
    }
    service_.kept(kNode).changed(0);
    for (const auto& client : clients) EXPECT_EQ(client->receive(), changeReply(0));
}

TEST_F(Watch, CostsNoThread) {
    Client first(kNode);
    watch(first);
    const std::size_t before = threadCount();
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < 100; ++count) {
        clients.push_back(std::make_unique<Client>(kNode));
        watch(*clients.back());
    }
    EXPECT_LT(threadCount(), before + clients.size() / 4);  // a few for a busy machine, not one for each
}

TEST_F(Watch, WithdrawalOfTheNodeEndsItWithWithdrawn) {
    Client client(kNode);
    watch(client);
    service_.remove(kNode);
    EXPECT_EQ(client.receive(), kWithdrawn);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Watch, EndOfTheServiceEndsItWithWithdrawn) {
    Client client(kNode);
    watch(client);
    ASSERT_TRUE(service_.stop());
    EXPECT_EQ(client.receive(), kWithdrawn);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Watch, HoldsLaterCallsOfItsConnection) {
    Client client(kNode);
    watch(client);
    client.send(executeCall({"ECHO"}));
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    service_.kept(kNode).changed(0);
    EXPECT_EQ(client.receive(), changeReply(0));
    service_.remove(kNode);
    EXPECT_EQ(client.receive(), kWithdrawn);
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(server().begunCount("ECHO"), 0u);
}

TEST_F(Watch, CountsAsOneOfThePendingCalls) {
    Client client(kNode);
    watch(client);
    for (int call = 2; call <= 64; ++call) client.send(executeCall({"ECHO"}));
    EXPECT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    client.send(executeCall({"ECHO"}));
    Client(kNode).call(getCall("NAME"));
    EXPECT_FALSE(client.isAllRead());
}

TEST_F(Watch, OfAHalfClosedConnectionGoesOn) {
    Client client(kNode);
    client.send(nodeCall("Watch", "", R"(,"more":true)"));
    client.halfClose();
    EXPECT_EQ(client.receive(), kFirst);
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), stringReply("NAME", "node 7"));
    service_.kept(kNode).changed(4);
    EXPECT_EQ(client.receive(), changeReply(4));
    service_.remove(kNode);
    EXPECT_EQ(client.receive(), kWithdrawn);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Watch, AHangUpEndsItAndOnewayCallsBehindItAreCarriedOut) {
    Client client(kNode);
    watch(client);
    client.send(executeCall({"dropped"}));
    client.send(executeCall({"oneway"}, R"(,"oneway":true)"));
    client.hangUp();
    EXPECT_TRUE(waitUntil([&] { return server().begunCount("oneway") == 1; }));
    EXPECT_EQ(server().begunCount("dropped"), 0u);
    service_.kept(kNode).changed(0);
}

TEST_F(Watch, AClientThatDoesNotReadDelaysNoChange) {
    Client lazy(kNode);
    watch(lazy);
    Client eager(kNode);
    watch(eager);
    std::uint64_t changes = 0;
    // Past what the kernel and the service hold for the lazy one, which is closed then.
    for (; changes < 40'000; ++changes) {
        service_.kept(kNode).changed(changes);
        ASSERT_EQ(eager.receive(), changeReply(changes));
    }
    std::uint64_t seen = 0;
    for (std::optional<std::string> reply = lazy.receive(); reply; reply = lazy.receive()) {
        ASSERT_EQ(*reply, changeReply(seen++));
    }
    EXPECT_LT(seen, changes);
    EXPECT_GT(seen, 0u);
}

TEST_F(Watch, RacesWithWithdrawalWithoutLosingItsEnd) {
    for (std::uint64_t round = 0; round < 200; ++round) {
        service_.add("test/brief", 9);
        Client client("test/brief");
        ASSERT_TRUE(client.connected());
        client.send(nodeCall("Watch", "", R"(,"more":true)"));
        std::thread changer([&] { service_.kept("test/brief").changed(round); });
        changer.join();
        service_.remove("test/brief");
        std::vector<std::string> replies;
        while (const std::optional<std::string> reply = client.receive()) replies.push_back(*reply);
        // Not begun, or begun, told of the change or not, and ended.
        if (replies.empty()) continue;
        EXPECT_EQ(replies.back(), kWithdrawn);
        EXPECT_TRUE(replies.size() == 1 || replies.front() == kFirst) << replies.front();
        EXPECT_LE(replies.size(), 3u);
    }
}

}  // namespace
}  // namespace NodesTest
