#include <atomic>
#include <thread>

#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"

namespace NodesTest {
namespace {

TEST(CallerId, AThreadReadsBackWhatItStoredItself) {
    CallerIdField field;
    field.set(1);
    std::thread([&] { field.set(2); }).join();
    EXPECT_EQ(field.get(), 1u);
}

TEST(CallerId, AThreadThatNeverStoredReadsTheLastValue) {
    CallerIdField field;
    EXPECT_EQ(field.get(), 0u);
    std::thread([&] { field.set(3); }).join();
    EXPECT_EQ(field.get(), 3u);
    field.set(4);
    std::thread([&] { EXPECT_EQ(field.get(), 4u); }).join();
}

TEST(CallerId, AFieldKnowsNothingOfAnEarlierOneAtItsAddress) {
    for (int round = 0; round < 2; ++round) {
        CallerIdField field;
        EXPECT_EQ(field.get(), 0u);
        field.set(5);
        EXPECT_EQ(field.get(), 5u);
    }
}

TEST(CallerId, FieldsDoNotMixUp) {
    CallerIdField one;
    CallerIdField other;
    one.set(1);
    other.set(2);
    EXPECT_EQ(one.get(), 1u);
    EXPECT_EQ(other.get(), 2u);
}

using CallerIds = TreeTest;

TEST_F(CallerIds, NodesOfOneServerNeverSeeEachOthersAnswers) {
    TestService service;
    service.add("test/first", 1);
    service.add("test/second", 2);
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int number = 0; number < 16; ++number) {
        clients.emplace_back([&wrong, number] {
            const bool first = number % 2 == 0;
            Client client(first ? "test/first" : "test/second");
            const std::string name = stringReply("NAME", first ? "node 1" : "node 2");
            const std::string id = integerReply("ID", first ? 1 : 2);
            for (int round = 0; round < 500; ++round) {
                if (client.call(getCall("NAME")) != name) ++wrong;
                if (client.call(executeCall({"ID"})) != id) ++wrong;
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace NodesTest
