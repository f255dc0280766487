#include "devices/SharedRef.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/host/String.h"

namespace Services::Bluetooth::Linux {
namespace {

TEST(SharedRef, ReadsWhatWasStoredLast) {
    SharedRef<String> ref(String::create("one"));
    EXPECT_EQ(viewOf(ref.load()), "one");
    ref.store(String::create("two"));
    EXPECT_EQ(viewOf(ref.load()), "two");
}

TEST(SharedRef, ReplacesOnlyWhatIsStillThere) {
    const Ref<String> one = String::create("one");
    SharedRef<String> ref(one);
    EXPECT_TRUE(ref.replace(one, String::create("two")));
    EXPECT_FALSE(ref.replace(one, String::create("three")));
    EXPECT_EQ(viewOf(ref.load()), "two");
}

TEST(SharedRef, IsReadAndReplacedByManyThreadsAtOnce) {
    SharedRef<String> ref(String::create(std::string(64, 'a')));
    std::vector<std::thread> threads;
    for (const char letter : {'b', 'c'}) {
        threads.emplace_back([&ref, letter] {
            for (int round = 0; round < 20000; ++round) ref.store(String::create(std::string(64, letter)));
        });
    }
    for (int reader = 0; reader < 2; ++reader) {
        threads.emplace_back([&ref] {
            for (int round = 0; round < 20000; ++round) {
                const Ref<String> read = ref.load();
                ASSERT_EQ(read->view(), std::string(64, read->view().front()));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace Services::Bluetooth::Linux
