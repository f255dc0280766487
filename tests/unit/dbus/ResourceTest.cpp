#include <filesystem>
#include <fstream>

#include "tests/unit/dbus/Bus.h"

// What a connection costs while nothing happens, and what it leaves behind.

namespace UnitTest {
namespace {

std::size_t entries(const char* directory) {
    const std::filesystem::directory_iterator all(directory);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// How often the I/O threads of this process have gone to sleep so far.
long sleepsOfIoThreads() {
    long sleeps = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name != "bus-io") continue;
        std::ifstream status(task.path() / "status");
        for (std::string key; status >> key;) {
            if (key != "voluntary_ctxt_switches:") continue;
            long number = 0;
            status >> number;
            sleeps += number;
        }
    }
    return sleeps;
}

class Resources : public Bus {};

TEST_F(Resources, AreNotUsedOnAQuietBus) {
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    std::thread waiting([&] { EXPECT_FALSE(callPeer(connection_, "Never", 600)); });
    ASSERT_TRUE(peer_.waitForCalls(kInterface, "Never"));
    const long before = sleepsOfIoThreads();
    ASSERT_GT(before, 0);
    waiting.join();
    // It may have been on its way to sleep when the count was taken.
    EXPECT_LE(sleepsOfIoThreads(), before + 2);
}

TEST_F(Resources, AreGivenBack) {
    const auto useOne = [&] {
        const Connection connection;
        const Dispatcher dispatcher(connection);
        EXPECT_TRUE(callPeer(connection, "Answer"));
    };
    useOne();
    const std::size_t descriptors = entries("/proc/self/fd");
    const std::size_t threads = entries("/proc/self/task");
    for (int i = 0; i < 50; ++i) useOne();
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
    // A thread that was joined may be listed for another moment.
    EXPECT_TRUE(waitUntil([&] { return entries("/proc/self/task") == threads; }));
}

}  // namespace
}  // namespace UnitTest
