#include <gtest/gtest.h>

#include "tests/unit/support/FakePeer.h"
#include "tests/unit/support/PrivateBus.h"

namespace UnitTest {
namespace {

class Peer : public ::testing::Test {
protected:
    PrivateBus bus_;
    FakePeer peer_{PrivateBus::address()};
    FakePeer other_{PrivateBus::address(), "test.other"};
};

TEST_F(Peer, RecordsCallsWithTheirArgumentsAndAnswersAsScripted) {
    peer_.on("test.Interface", "Echo", FakePeer::answers([](DBusMessageIter* iter) { append(iter, "back"); }));
    const auto reply = other_.call("org.bluez", "/a", "test.Interface", "Echo", [](DBusMessageIter* iter) {
        append(iter, ObjectPath{"/dev"});
        append(iter, BusDict{{"Name", "x"}, {"Paired", true}, {"List", std::vector<std::string>{"1", "2"}}});
    });
    ASSERT_TRUE(reply);
    EXPECT_EQ(argumentsAsText(reply.get()), "\"back\"");
    ASSERT_EQ(peer_.calls().size(), 1u);
    EXPECT_EQ(peer_.calls()[0].text(),
              "/a test.Interface.Echo(/dev, {\"Name\": <\"x\">, \"Paired\": <true>, \"List\": <[\"1\", \"2\"]>})");
    EXPECT_EQ(peer_.calls()[0].sender, other_.uniqueName());
}

TEST_F(Peer, AnswersErrorsByNameAndUnscriptedCallsWithUnknownMethod) {
    peer_.on("test.Interface", "Fail", FakePeer::fails("test.Error"));
    const auto scripted = other_.call("org.bluez", "/a", "test.Interface", "Fail");
    ASSERT_TRUE(scripted);
    EXPECT_STREQ(::dbus_message_get_error_name(scripted.get()), "test.Error");
    const auto unscripted = other_.call("org.bluez", "/a", "test.Interface", "Other");
    ASSERT_TRUE(unscripted);
    EXPECT_STREQ(::dbus_message_get_error_name(unscripted.get()), DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(peer_.count("test.Interface", "Other"), 1u);
}

TEST_F(Peer, AnswersALaterRequestBeforeAHeldOne) {
    peer_.on("test.Interface", "Held", peer_.holds());
    FakePeer::Message late;
    std::thread caller([&] { late = other_.call("org.bluez", "/a", "test.Interface", "Held"); });
    const auto held = peer_.takeHeld();
    ASSERT_TRUE(held);
    peer_.setProperty("/a", "test.Interface", "Number", std::uint32_t{7});
    const auto property = other_.call("org.bluez", "/a", "org.freedesktop.DBus.Properties", "Get", [](auto* iter) {
        append(iter, "test.Interface");
        append(iter, "Number");
    });
    ASSERT_TRUE(property);
    EXPECT_EQ(argumentsAsText(property.get()), "<7>");
    held->reply([](DBusMessageIter* iter) { append(iter, true); });
    caller.join();
    ASSERT_TRUE(late);
    EXPECT_EQ(argumentsAsText(late.get()), "true");
}

TEST_F(Peer, StartsAgainOnTheSameAddressAfterTheBusDied) {
    bus_.kill();
    PrivateBus again;
    FakePeer peer(PrivateBus::address());
    EXPECT_FALSE(peer.uniqueName().empty());
}

}  // namespace
}  // namespace UnitTest
