#include <vector>

#include "platform/dbus/DispatchQueue.h"
#include "tests/unit/dbus/Bus.h"
#include "tests/unit/support/LogCapture.h"

// How many signals wait for the dispatch thread at most. The messages pushed are references to one, so that the tests
// need no memory for them.

namespace UnitTest {
namespace {

/// A signal that counts that much against the queue's limit.
DBus::MessagePtr signalOf(std::size_t bytes) {
    const auto make = [](std::size_t length) {
        DBus::MessagePtr signal(::dbus_message_new_signal("/", kInterface, "Big"));
        const std::string text(length, 'x');
        const char* const data = text.c_str();
        ::dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, &data, DBUS_TYPE_INVALID);
        ::dbus_message_set_serial(signal.get(), 1);
        return signal;
    };
    char* marshalled = nullptr;
    int empty = 0;
    ::dbus_message_marshal(make(0).get(), &marshalled, &empty);
    ::dbus_free(marshalled);
    return make(bytes - static_cast<std::size_t>(empty) - DBus::DispatchQueue::kBytesAroundSignal);
}

class SignalQueue : public ::testing::Test {
protected:
    using Queue = DBus::DispatchQueue;
    static constexpr std::size_t kSignals = 16;
    static constexpr std::size_t kShare = Queue::kMaxSignalBytes / kSignals;

    void push(const DBus::MessagePtr& message) {
        std::vector<Queue::Item> items;
        items.push_back({DBus::MessagePtr(::dbus_message_ref(message.get())), nullptr});
        queue_.push(items);
    }
    std::size_t takeAll() {
        std::size_t taken = 0;
        for (Queue::Item item; queue_.take(item, 0);) ++taken;
        return taken;
    }
    std::size_t lines() const { return log_.records("DBus").size(); }

    LogCapture log_;
    Queue queue_;
    const DBus::MessagePtr share_ = signalOf(kShare);
    const DBus::MessagePtr smallest_ = signalOf(1024);
};

TEST_F(SignalQueue, TakesSignalsUpToTheLimitAndDropsTheNewestPastIt) {
    for (std::size_t i = 0; i < kSignals; ++i) push(share_);
    EXPECT_EQ(lines(), 0u);
    push(smallest_);
    EXPECT_EQ(log_.records("DBus"),
              std::vector<std::string>{"3 Signals are dropped: 256 MiB of them wait to be handled"});
    EXPECT_EQ(takeAll(), kSignals);
}

TEST_F(SignalQueue, TakesNoByteMoreThanTheLimit) {
    push(signalOf(kShare + 1));
    for (std::size_t i = 1; i < kSignals; ++i) push(share_);
    EXPECT_EQ(lines(), 1u);
    EXPECT_EQ(takeAll(), kSignals - 1);
}

TEST_F(SignalQueue, LogsOneLineForEachFlood) {
    for (std::size_t flood = 1; flood <= 2; ++flood) {
        for (std::size_t i = 0; i < kSignals + 5; ++i) push(share_);
        Queue::Item item;
        ASSERT_TRUE(queue_.take(item, 0));  // makes room for one
        push(share_);
        push(share_);
        EXPECT_EQ(lines(), flood);
        EXPECT_EQ(takeAll(), kSignals);
    }
}

TEST_F(SignalQueue, TakesCallsAndRepliesWhenItIsFull) {
    for (std::size_t i = 0; i < kSignals; ++i) push(share_);
    push(methodCall("Any"));
    std::vector<Queue::Item> items;
    items.push_back({nullptr, Ref<DBus::DBusPendingCall>(new DBus::DBusPendingCall(Clock::now()))});
    queue_.push(items);
    EXPECT_EQ(takeAll(), kSignals + 2);
    EXPECT_EQ(lines(), 0u);
}

TEST_F(SignalQueue, TakesBackASignalThatIsToBeHandledAgain) {
    for (std::size_t i = 0; i < kSignals; ++i) push(share_);
    Queue::Item item;
    ASSERT_TRUE(queue_.take(item, 0));
    push(share_);
    queue_.putBack(std::move(item));
    push(smallest_);
    EXPECT_EQ(lines(), 1u);
    for (std::size_t i = 0; i < kSignals + 1; ++i) EXPECT_TRUE(queue_.take(item, -1));
    EXPECT_FALSE(queue_.take(item, 0));
}

}  // namespace
}  // namespace UnitTest
