#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <vector>

#include "tests/unit/dbus/Bus.h"

// Signals that pour in while calls are made, and filters and rules come and go.

namespace UnitTest {
namespace {

class Flood : public Bus {
protected:
    void emitNumbered(std::uint32_t from, std::uint32_t to) {
        for (std::uint32_t i = from; i < to; ++i)
            peer_.emit("/", kInterface, "Number", [i](DBusMessageIter* iter) { append(iter, i); });
    }
    void addMatch() {
        Error error;
        DBus::dbus_bus_add_match(connection_, "type='signal',interface='test.Interface'", error);
        EXPECT_FALSE(error.isSet()) << error.message();
    }
};

/// Counts numbered signals and those that are out of order.
struct Sequence {
    std::atomic<std::uint32_t> next{0};
    std::atomic<std::uint32_t> wrong{0};

    static DBusHandlerResult onMessage(DBus::DBusConnection*, DBusMessage* message, void* data) {
        auto& self = *static_cast<Sequence*>(data);
        if (!::dbus_message_is_signal(message, kInterface, "Number")) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        std::uint32_t number = 0;
        ::dbus_message_get_args(message, nullptr, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID);
        if (number != self.next) ++self.wrong;
        self.next = number + 1;
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
};

TEST_F(Flood, OfTwentyThousandSignalsComesWholeAndInOrderWhileCallsAreMade) {
    constexpr std::uint32_t kSignals = 20000;
    Sequence sequence;
    DBus::dbus_connection_add_filter(connection_, &Sequence::onMessage, &sequence, nullptr);
    addMatch();
    {
        const Dispatcher dispatcher(connection_);
        std::atomic<bool> stops{false};
        std::atomic<int> calls{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                while (!stops) {
                    EXPECT_TRUE(callPeer(connection_, "Answer"));
                    ++calls;
                }
            });
        }
        emitNumbered(0, kSignals);
        EXPECT_TRUE(waitUntil([&] { return sequence.next == kSignals; }, 3 * kPatience));
        stops = true;
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(sequence.wrong, 0u);
        EXPECT_GT(calls, 4);
    }
    DBus::dbus_connection_remove_filter(connection_, &Sequence::onMessage, &sequence);
}

TEST_F(Flood, BeyondLibdbussLimitDoesNotKeepRepliesFromComingIn) {
    // libdbus stops reading at 63 MiB of messages that nobody has freed. Nobody dispatches here.
    addMatch();
    const std::string text(1 << 20, 'x');
    for (int i = 0; i < 70; ++i) {
        peer_.emit("/", kInterface, "Big", [&](DBusMessageIter* iter) { append(iter, text); });
        peer_.flush();
        EXPECT_TRUE(callPeer(connection_, "Answer"));
    }
}

/// How many descriptors of the process have this file open.
std::size_t openDescriptorsOf(const std::string& file) {
    std::size_t open = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        open += std::filesystem::read_symlink(entry, gone) == file;
    }
    return open;
}

TEST_F(Flood, OfDescriptorsOpensNone) {
    // Nobody dispatches, so whatever is queued stays.
    addMatch();
    const std::string file = "/dev/full";
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    const std::size_t before = openDescriptorsOf(file);
    const auto appendDescriptor = [descriptor](DBusMessageIter* iter) {
        ::dbus_message_iter_append_basic(iter, DBUS_TYPE_UNIX_FD, &descriptor);
    };
    for (int i = 0; i < 100; ++i) peer_.emit("/", kInterface, "Descriptor", appendDescriptor);
    ASSERT_TRUE(callPeer(connection_, "Answer"));
    const auto answer = peer_.call(peer_.calls().back().sender, "/", kInterface, "Descriptor", appendDescriptor);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(::dbus_message_is_error(answer.get(), DBUS_ERROR_NOT_SUPPORTED));
    // The peer shares the process: its own copies go when it has sent them.
    EXPECT_TRUE(waitUntil([&] { return openDescriptorsOf(file) == before; })) << openDescriptorsOf(file);
    ::close(descriptor);
}

/// A filter's data; whoever removes the filter destroys it, so that a late run shows.
struct Watched {
    std::atomic<int> runs{0};
    std::atomic<bool> gone{false};

    static DBusHandlerResult onMessage(DBus::DBusConnection*, DBusMessage*, void* data) {
        auto& self = *static_cast<Watched*>(data);
        EXPECT_FALSE(self.gone);
        ++self.runs;
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    ~Watched() { gone = true; }
};

TEST_F(Flood, GoesOnWhileOtherThreadsAddAndRemoveFiltersAndRules) {
    Sequence sequence;
    DBus::dbus_connection_add_filter(connection_, &Sequence::onMessage, &sequence, nullptr);
    addMatch();
    {
        const Dispatcher dispatcher(connection_);
        std::atomic<bool> stops{false};
        std::vector<std::thread> threads;
        std::atomic<int> watched{0};
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                const std::string rule = "type='signal',path='/thread" + std::to_string(t) + "'";
                for (int i = 0; !stops; ++i) {
                    Error error;
                    const auto filter = std::make_unique<Watched>();
                    DBus::dbus_bus_add_match(connection_, rule.c_str(), error);
                    DBus::dbus_connection_add_filter(connection_, &Watched::onMessage, filter.get(), nullptr);
                    if (i % 2 == 0) {
                        EXPECT_TRUE(waitUntil([&] { return filter->runs > 0 || stops; }));
                    }
                    DBus::dbus_connection_remove_filter(connection_, &Watched::onMessage, filter.get());
                    watched += filter->runs > 0;
                    DBus::dbus_bus_remove_match(connection_, rule.c_str(), error);
                    EXPECT_FALSE(error.isSet()) << error.message();
                }
            });
        }
        constexpr std::uint32_t kBatch = 500;
        for (std::uint32_t i = 0; i < 10; ++i) {
            emitNumbered(i * kBatch, (i + 1) * kBatch);
            EXPECT_TRUE(waitUntil([&] { return sequence.next == (i + 1) * kBatch; }));
        }
        stops = true;
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(sequence.wrong, 0u);
        EXPECT_GT(watched, 0);
    }
    DBus::dbus_connection_remove_filter(connection_, &Sequence::onMessage, &sequence);
}

TEST_F(Flood, RemovalOfAFilterReturnsOnlyWhenItHasStoppedRunning) {
    struct Held {
        std::mutex lock;
        std::condition_variable changed;
        bool inside = false;
        bool released = false;
        std::atomic<bool> returned{false};

        static DBusHandlerResult onMessage(DBus::DBusConnection*, DBusMessage* message, void* data) {
            auto& self = *static_cast<Held*>(data);
            if (!::dbus_message_is_signal(message, kInterface, "Go")) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
            std::unique_lock guard(self.lock);
            self.inside = true;
            self.changed.notify_all();
            EXPECT_TRUE(self.changed.wait_for(guard, kPatience, [&] { return self.released; }));
            EXPECT_FALSE(self.returned);
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
    } held;
    DBus::dbus_connection_add_filter(connection_, &Held::onMessage, &held, nullptr);
    addMatch();
    const Dispatcher dispatcher(connection_);
    peer_.emit("/", kInterface, "Go");
    peer_.emit("/", kInterface, "Go");
    {
        std::unique_lock guard(held.lock);
        ASSERT_TRUE(held.changed.wait_for(guard, kPatience, [&] { return held.inside; }));
    }
    std::thread remover([&] {
        DBus::dbus_connection_remove_filter(connection_, &Held::onMessage, &held);
        held.returned = true;
    });
    EXPECT_FALSE(waitUntil([&] { return held.returned.load(); }, milliseconds(50)));
    {
        const std::lock_guard guard(held.lock);
        held.inside = false;
        held.released = true;
    }
    held.changed.notify_all();
    remover.join();
    EXPECT_TRUE(callPeer(connection_, "Answer"));
    const std::lock_guard guard(held.lock);
    EXPECT_FALSE(held.inside);  // the second signal did not reach it
}

}  // namespace
}  // namespace UnitTest
