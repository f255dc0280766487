#include <signal.h>

#include <filesystem>
#include <random>
#include <thread>

#include "platform/host/LogLine.h"
#include "tests/unit/nodes/Child.h"
#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"
#include "tests/unit/support/LogCapture.h"

namespace NodesTest {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using Names = std::vector<std::string>;

const std::string kName = stringReply("NAME", "node 7");

class Withdrawing : public ServiceTest {
protected:
    void block(Client& client, const char* action = "WAIT") {
        const int before = server().waiting;
        client.send(executeCall({action}));
        ASSERT_TRUE(waitUntil([&] { return server().waiting == before + 1; }));
    }
};

using Stopping = Withdrawing;

TEST_F(Withdrawing, ClosesIdleConnections) {
    Client idle(kNode);
    ASSERT_EQ(idle.call(getCall("NAME")), kName);
    Client fresh(kNode);
    service_.remove(kNode);
    EXPECT_TRUE(idle.isClosed());
    EXPECT_FALSE(fresh.receive());
    EXPECT_FALSE(Client(kNode).connected());
}

TEST_F(Withdrawing, WaitsForNobodyAndARequestBeingServedIsAnsweredBeforeItsConnectionIsClosed) {
    Client client(kNode);
    block(client);
    client.send(executeCall({"ECHO"}));
    ASSERT_TRUE(waitUntil([&] { return client.isAllRead(); }));
    service_.remove(kNode);
    EXPECT_EQ(contents(), (Names{".TestServer.new/", ".TestServer.new/journal"}));
    EXPECT_FALSE(client.hasInput());
    EXPECT_EQ(server().interrupted, 0);
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(server().begunCount("ECHO"), 0u) << "calls behind the request are dropped";
}

TEST_F(Withdrawing, AReplyThatIsNotReadYetStillArrives) {
    Client client(kNode);
    client.send(nodeCall("Execute", R"({"values":[{"name":"BIG","kind":"integer","integer":3000000}]})"));
    ASSERT_TRUE(waitUntil([&] { return client.hasInput(); }));
    service_.remove(kNode);
    EXPECT_EQ(client.receive(), stringReply("BIG", std::string(3'000'000, 'x')));
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Withdrawing, ByTheServersOwnRequestIsAnswered) {
    // A request may drop the last reference to the DeviceServer that its own node is in.
    Client client(kNode);
    block(client);
    std::thread remover([&] { service_.remove(kNode); });
    remover.join();
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
}

TEST_F(Withdrawing, WhileManyConnectAndCallLosesNothing) {
    std::atomic<bool> ended{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int number = 0; number < 4; ++number) {
        clients.emplace_back([&] {
            while (!ended) {
                Client client("test/brief");
                if (!client.connected()) continue;
                const std::string answer = client.call(getCall("NAME"));
                if (answer != stringReply("NAME", "node 9") && answer != "closed") ++wrong;
            }
        });
    }
    for (int round = 0; round < 300; ++round) {
        service_.add("test/brief", 9);
        service_.remove("test/brief");
    }
    ended = true;
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(Client(kNode).call(getCall("NAME")), kName);
}

TEST_F(Stopping, EndsBlockedRequestsUnanswered) {
    std::vector<std::unique_ptr<Client>> clients;
    for (const char* action : {"WAIT", "SLEEP", "PLAIN"}) {
        clients.push_back(std::make_unique<Client>(kNode));
        block(*clients.back(), action);
    }
    const Clock::time_point begin = Clock::now();
    EXPECT_TRUE(service_.stop());
    EXPECT_LT(Clock::now() - begin, 5s);
    EXPECT_EQ(server().interrupted, 3);
    EXPECT_EQ(server().waiting, 0);
    for (const auto& client : clients) EXPECT_TRUE(client->isClosed());
    EXPECT_EQ(contents(), Names{});
}

TEST_F(Stopping, EndsRequestsOnNodesThatWereWithdrawnBefore) {
    Client client(kNode);
    block(client);
    service_.remove(kNode);
    EXPECT_TRUE(service_.stop());
    EXPECT_EQ(server().interrupted, 1);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(Stopping, AnswersTheNodeThroughWhichTheProcessIsAskedToEnd) {
    Services::Nodes::requestOnTermination(String::create("test/urgent"), String::create("STOP"));
    service_.add("test/urgent", 9);
    Client other(kNode);
    block(other);
    Client client("test/urgent");
    block(client);
    std::thread stopper([&] { service_.stop(); });
    EXPECT_TRUE(other.isClosed());
    // A connection is closed before its request has noticed, and that would still take what is posted.
    EXPECT_TRUE(waitUntil([&] { return server().interrupted == 1; }));
    EXPECT_FALSE(client.hasInput());
    server().post();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    EXPECT_TRUE(client.isClosed());
    stopper.join();
}

TEST_F(Stopping, LeavesNoThreadAndNoDescriptor) {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    for (int round = 0; round < 5; ++round) {
        service_.stop();
        if (round == 0) {
            threads = threadCount();
            descriptors = descriptorCount();
        }
        TestService again("Again");
        again.add("again/node", 1);
        EXPECT_EQ(Client("again/node").call(getCall("NAME")), stringReply("NAME", "node 1"));
        Client blocked("again/node");
        blocked.send(executeCall({"WAIT"}));
        ASSERT_TRUE(waitUntil([&] { return again.server().waiting == 1; }));
        ASSERT_TRUE(again.stop());
        blocked.hangUp();
        EXPECT_TRUE(waitUntil([&] { return threadCount() == threads; })) << threadCount();
        EXPECT_EQ(descriptorCount(), descriptors + 1) << "the root";
    }
}

TEST_F(Stopping, ReleasesTheServer) {
    const int before = TestServer::alive;
    {
        TestService service("Other");
        service.add("other/node", 1);
        EXPECT_EQ(Client("other/node").call(getCall("NAME")), stringReply("NAME", "node 1"));
        EXPECT_EQ(TestServer::alive, before + 1);
        ASSERT_TRUE(service.stop());
        service.forgetServer();
        EXPECT_EQ(TestServer::alive, before) << "the service still refers to the server";
    }
}

TEST_F(Stopping, ReleasesTheServerWhenTheLastRequestEnds) {
    const int before = TestServer::alive;
    TestService service("Other");
    service.add("other/node", 1);
    Client client("other/node");
    client.send(executeCall({"PLAIN"}));
    ASSERT_TRUE(waitUntil([&] { return service.server().waiting == 1; }));
    service.base().stop();
    service.forgetServer();
    EXPECT_TRUE(waitUntil([&] { return TestServer::alive == before; }));
}

TEST_F(Stopping, IsNotOverBeforeTheServerIsGone) {
    TestService service("Other");
    service.add("other/node", 1);
    std::atomic<bool> held{true};
    service.server().atItsEnd = [&] { EXPECT_TRUE(waitUntil([&] { return !held; })); };
    Client client("other/node");
    client.send(executeCall({"PLAIN"}));
    ASSERT_TRUE(waitUntil([&] { return service.server().waiting == 1; }));
    const int alive = TestServer::alive;
    service.forgetServer();
    service.base().stop();
    // The request's thread has the last reference, and is not through with it.
    EXPECT_FALSE(service.base().wait(300));
    held = false;
    EXPECT_TRUE(service.base().wait(0xFFFFFFFFu));
    EXPECT_EQ(TestServer::alive, alive - 1);
}

TEST_F(Stopping, TwiceIsOnce) {
    EXPECT_TRUE(service_.stop());
    EXPECT_TRUE(service_.stop());
}

TEST_F(Stopping, NodesThatComeLaterAreLeftOut) {
    UnitTest::LogCapture log;
    ASSERT_TRUE(service_.stop());
    service_.add("test/late", 8);
    EXPECT_EQ(log.records("Nodes"), Names{"3 Node left out: test/late: its service is not running"});
    EXPECT_EQ(contents(), Names{});
}

TEST_F(Stopping, OtherServicesGoOn) {
    TestService other("Other");
    other.add("other/node", 1);
    ASSERT_TRUE(service_.stop());
    EXPECT_EQ(Client("other/node").call(getCall("NAME")), stringReply("NAME", "node 1"));
    EXPECT_FALSE(Client(kNode).connected());
}

TEST_F(Stopping, WaitHasATimeLimit) {
    EXPECT_TRUE(service_.base().wait(0));
    Client client(kNode);
    block(client);
    const Clock::time_point begin = Clock::now();
    EXPECT_FALSE(service_.base().wait(50));
    EXPECT_GE(Clock::now() - begin, 50ms);
    std::thread poster([&] { server().post(); });
    EXPECT_TRUE(service_.base().wait(0xFFFFFFFFu));
    poster.join();
    EXPECT_EQ(client.receive(), integerReply("WAIT", 0));
    EXPECT_EQ(client.call(getCall("NAME")), kName) << "waiting alone stops nothing";
}

TEST_F(Stopping, GivesRepliesATenthOfASecondToBeTaken) {
    Client client(kNode);
    client.send(nodeCall("Execute", R"({"values":[{"name":"BIG","kind":"integer","integer":3000000}]})"));
    ASSERT_TRUE(waitUntil([&] { return server().begunCount("BIG") == 1 && client.hasInput(); }));
    // Nobody reads: the end does not wait for ever. What the kernel has still arrives.
    const Clock::time_point begin = Clock::now();
    EXPECT_TRUE(service_.stop());
    EXPECT_LT(Clock::now() - begin, 5s);
    EXPECT_FALSE(client.receive()) << "the rest of the reply is lost";
}

TEST_F(Stopping, AtAnyMomentOfManyRequests) {
    for (int round = 0; round < 50; ++round) {
        TestService service("Brief");
        service.add("brief/node", 7);
        std::atomic<int> wrong{0};
        std::vector<std::thread> clients;
        for (int number = 0; number < 4; ++number) {
            clients.emplace_back([&wrong] {
                Client client("brief/node");
                for (;;) {
                    const std::string answer = client.call(getCall("NAME"));
                    if (answer == "closed") return;
                    if (answer != kName) ++wrong;
                }
            });
        }
        std::this_thread::yield();
        ASSERT_TRUE(service.stop());
        for (std::thread& client : clients) client.join();
        EXPECT_EQ(wrong, 0);
    }
}

using Processes = TreeTest;

TEST_F(Processes, ASecondOneIsRefusedAndTheFirstIsNotDisturbed) {
    Child first({"serve", "Server", "a/one", "a/two"});
    ASSERT_EQ(first.line(), "ready");
    Client client("a/one");
    const Names before = contents();
    Child second({"serve", "Server", "a/one", "a/three"});
    EXPECT_EQ(second.line(), "refused");
    EXPECT_EQ(second.wait(), 1);
    ASSERT_EQ(second.records().size(), 1u);
    const std::string expected = "Nodes: Could not serve Server, " + root() + "/.Server.lock: served by process " +
                                 LogLine::number(static_cast<std::uint64_t>(first.process()));
    EXPECT_TRUE(second.records()[0].starts_with("[4] ")) << second.records()[0];
    EXPECT_TRUE(second.records()[0].ends_with(expected)) << second.records()[0];
    EXPECT_EQ(contents(), before);
    EXPECT_EQ(client.call(getCall("NAME")), stringReply("NAME", "node 1"));
    EXPECT_EQ(Client("a/two").call(getCall("NAME")), stringReply("NAME", "node 2"));
    EXPECT_EQ(first.end(), 0);
    EXPECT_EQ(contents(), Names{});
}

TEST_F(Processes, OtherServerNamesAndOtherRootsAreFree) {
    Child first({"serve", "Server", "a/one"});
    ASSERT_EQ(first.line(), "ready");
    Child second({"serve", "Other", "a/two"});
    EXPECT_EQ(second.line(), "ready");
    ::setenv("NODE_ROOT", (folder_.path() + "/elsewhere").c_str(), 1);
    Child third({"serve", "Server", "a/one"});
    EXPECT_EQ(third.line(), "ready");
    EXPECT_EQ(third.end(), 0);
    EXPECT_EQ(second.end(), 0);
    EXPECT_EQ(contents(), (Names{".Server.new/", ".Server.new/journal", "a/", "a/one"}));
    EXPECT_EQ(first.end(), 0);
}

TEST_F(Processes, WhatAKilledOneLeftBehindIsClearedByTheNext) {
    Child killed({"serve", "Server", "a/b/one", "a/two", "c/three"});
    ASSERT_EQ(killed.line(), "ready");
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.wait(), 128 + SIGKILL);
    EXPECT_FALSE(Client("a/two").connected());
    EXPECT_TRUE(std::filesystem::is_socket(pathOf("a/two")));
    Child next({"serve", "Server", "a/two"});
    ASSERT_EQ(next.line(), "ready");
    EXPECT_EQ(contents(), (Names{".Server.new/", ".Server.new/journal", "a/", "a/two"}));
    EXPECT_EQ(Client("a/two").call(getCall("NAME")), stringReply("NAME", "node 1"));
    EXPECT_EQ(next.end(), 0);
    EXPECT_EQ(contents(), Names{});
}

TEST_F(Processes, WhatAKilledOneLeftBehindIsClearedByNobodyElse) {
    Child killed({"serve", "Server", "a/one"});
    ASSERT_EQ(killed.line(), "ready");
    killed.signal(SIGKILL);
    ASSERT_EQ(killed.wait(), 128 + SIGKILL);
    Child other({"serve", "Other", "a/two"});
    ASSERT_EQ(other.line(), "ready");
    EXPECT_EQ(other.end(), 0);
    EXPECT_TRUE(std::filesystem::is_socket(pathOf("a/one")));
}

TEST_F(Processes, WhatCameInPlaceOfAKilledOnesNodeStays) {
    Child killed({"serve", "Server", "a/one", "a/two"});
    ASSERT_EQ(killed.line(), "ready");
    killed.signal(SIGKILL);
    ASSERT_EQ(killed.wait(), 128 + SIGKILL);
    std::filesystem::remove(pathOf("a/one"));
    std::filesystem::create_directory(pathOf("a/one"));
    Child next({"serve", "Server", "a/one", "a/two"});
    ASSERT_EQ(next.line(), "ready");
    EXPECT_TRUE(std::filesystem::is_directory(pathOf("a/one")));
    EXPECT_EQ(Client("a/two").call(getCall("NAME")), stringReply("NAME", "node 2"));
    EXPECT_EQ(next.end(), 0);
    EXPECT_EQ(contents(), (Names{"a/", "a/one/"}));
}

TEST_F(Processes, KilledAtAnyMomentLeavesNothingThatTheNextDoesNotClear) {
    std::minstd_rand random(20);
    for (int round = 0; round < 40; ++round) {
        Child killed({"churn", "Server", "a/b/one", "a/two", "c/d/three"});
        ASSERT_EQ(killed.line(), "ready");
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        killed.signal(SIGKILL);
        ASSERT_EQ(killed.wait(), 128 + SIGKILL);
    }
    Child next({"serve", "Server", "a/two"});
    ASSERT_EQ(next.line(), "ready");
    EXPECT_EQ(contents(), (Names{".Server.new/", ".Server.new/journal", "a/", "a/two"}));
    EXPECT_EQ(next.end(), 0);
    EXPECT_EQ(contents(), Names{});
}

TEST_F(Processes, TerminationIsExecutedOnTheNodeAsSoonAsItIsPublished) {
    Child child({"terminate", "a/service", "STOP"});
    ASSERT_EQ(child.line(), "started");
    child.signal(SIGTERM);
    child.write("x");
    EXPECT_EQ(child.line(), "ready");
    EXPECT_EQ(child.line(), "executed");
    EXPECT_EQ(child.end(), 0);
    EXPECT_EQ(contents(), Names{});
}

TEST_F(Processes, TerminationIsExecutedOnThePublishedNode) {
    for (const int number : {SIGTERM, SIGINT}) {
        Child child({"terminate", "a/service", "STOP"});
        ASSERT_EQ(child.line(), "started");
        child.write("x");
        EXPECT_EQ(child.line(), "ready");
        child.signal(number);
        EXPECT_EQ(child.line(), "executed");
        EXPECT_EQ(child.end(), 0);
    }
}

TEST_F(Processes, TerminationIsExecutedThoughSomethingElseIsInTheNodesPlace) {
    std::filesystem::create_directories(pathOf("a/service"));
    for (const bool before : {true, false}) {
        Child child({"terminate", "a/service", "STOP"});
        ASSERT_EQ(child.line(), "started");
        if (before) child.signal(SIGTERM);
        child.write("x");
        EXPECT_EQ(child.line(), "ready");
        if (!before) child.signal(SIGTERM);
        EXPECT_EQ(child.line(), "executed");
        EXPECT_EQ(child.end(), 0);
        EXPECT_EQ(contents(), (Names{"a/", "a/service/"}));
    }
}

}  // namespace
}  // namespace NodesTest
