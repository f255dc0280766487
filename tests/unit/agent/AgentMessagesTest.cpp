#include <map>

#include "tests/unit/agent/AgentFixture.h"

namespace UnitTest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kAgent = "org.bluez.Agent1";
constexpr const char* kDevice = "/org/bluez/hci0/dev_00_11_22_33_44_55";
constexpr const char* kOtherDevice = "/org/bluez/hci0/dev_00_11_22_33_44_56";

/// BlueZ's side of the agent: sends calls without waiting for their answers, which come in the order of the calls. So
/// an answer that is not there when that of a later call has come was never sent.
class Caller {
public:
    explicit Caller(const std::string& destination) : destination_(destination) {
        DBusError error = DBUS_ERROR_INIT;
        connection_ = ::dbus_connection_open_private(PrivateBus::address().c_str(), &error);
        if (!connection_ || !::dbus_bus_register(connection_, &error)) throw std::runtime_error(error.message);
        ::dbus_connection_set_exit_on_disconnect(connection_, FALSE);
    }
    ~Caller() {
        ::dbus_connection_close(connection_);
        ::dbus_connection_unref(connection_);
    }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    /// The serial number of the call. No interface: the message has none.
    dbus_uint32_t send(const char* interface, const char* member, const FakePeer::Build& build = {}) {
        const DBus::MessagePtr call(
            ::dbus_message_new_method_call(destination_.c_str(), kAgentPath, interface, member));
        if (build) {
            DBusMessageIter arguments;
            ::dbus_message_iter_init_append(call.get(), &arguments);
            build(&arguments);
        }
        dbus_uint32_t serial = 0;
        ::dbus_connection_send(connection_, call.get(), &serial);
        ::dbus_connection_flush(connection_);
        return serial;
    }
    /// Waits for this call's answer.
    bool awaitAnswer(dbus_uint32_t serial) {
        return waitUntil([&] {
            ::dbus_connection_read_write(connection_, 10);
            while (DBusMessage* message = ::dbus_connection_pop_message(connection_)) {
                const DBus::MessagePtr owned(message);
                if (const dbus_uint32_t answered = ::dbus_message_get_reply_serial(message)) {
                    answers_[answered] = std::string(::dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_ERROR
                                                         ? ::dbus_message_get_error_name(message)
                                                         : "return") +
                                         "(" + argumentsAsText(message) + ")";
                }
            }
            return hasAnswer(serial);
        });
    }
    bool hasAnswer(dbus_uint32_t serial) const { return answers_.count(serial) != 0; }
    /// "return(ARGUMENTS)", or "ERROR NAME(ARGUMENTS)".
    std::string answer(dbus_uint32_t serial) { return awaitAnswer(serial) ? answers_[serial] : "none"; }

private:
    std::string destination_;
    ::DBusConnection* connection_;
    std::map<dbus_uint32_t, std::string> answers_;
};

/// An agent that is exported and dispatched on a thread of its own.
class AgentMessages : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(agent_.registerAgent(connection_.get()));
        caller_.emplace(bluez_->calls().front().sender);
        dispatcher_ = std::thread([this] {
            while (!ends_ && DBus::dbus_connection_read_write_dispatch(connection_.get(), 500)) {
            }
        });
        log_.forget();
    }
    void TearDown() override {
        ends_ = true;
        DBus::dbus_connection_wakeup(connection_.get());
        if (dispatcher_.joinable()) dispatcher_.join();
    }

    Ref<Listener> listen(const char* device) {
        Ref<Listener> listener(new Listener);
        EXPECT_TRUE(agent_.addListener(String::create(device), listener));
        return listener;
    }
    dbus_uint32_t sendPincode(const char* device, const char* pincode) {
        return caller_->send(kAgent, "DisplayPinCode", [=](DBusMessageIter* arguments) {
            append(arguments, ObjectPath{device});
            append(arguments, pincode);
        });
    }
    /// Waits until everything that was sent so far has been handled: a listener runs after the answer to BlueZ.
    void settle() {
        const dbus_uint32_t serial = caller_->send(DBUS_INTERFACE_INTROSPECTABLE, "Introspect");
        ASSERT_TRUE(caller_->awaitAnswer(serial));
    }
    bool isAnswered(dbus_uint32_t serial) {
        settle();
        return caller_->hasAnswer(serial);
    }

    PrivateBus bus_;
    FakeBluez bluez_;
    LogCapture log_;
    AuthenticationAgent agent_;
    Connection connection_;
    std::optional<Caller> caller_;
    std::atomic<bool> ends_{false};
    std::thread dispatcher_;
};

TEST_F(AgentMessages, IntrospectAnswersTheTextWithItsThreeFaults) {
    const std::string text =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\""
        "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\"><node>"
        "   <interface name=\"org.freedesktop.DBus.Introspectable\">      <method name=\"Introspect\">"
        "         <arg name=\"data\" direction=\"out\" type=\"s\"/>      </method>   </interface>"
        "   <interface name=\"org.bluez.Adapter1\">      <method name=\"DisplayPinCode\">"
        "         <arg name=\"device\" direction=\"in\" type=\"object\">"
        "         <arg name=\"pincode\" direction=\"in\" type=\"string\">      </method>   </interface></node>";
    ASSERT_EQ(text.size(), 546u);
    const dbus_uint32_t serial = caller_->send(DBUS_INTERFACE_INTROSPECTABLE, "Introspect");
    EXPECT_EQ(caller_->answer(serial), "return(\"" + text + "\")");
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AgentMessages, CancelIsNotAnsweredAndTellsNobody) {
    const Ref<Listener> listener = listen(kDevice);
    EXPECT_FALSE(isAnswered(caller_->send(kAgent, "Cancel")));
    EXPECT_THAT(listener->pincodes, IsEmpty());
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AgentMessages, ThePincodeIsAnsweredAndReachesTheDevice) {
    const Ref<Listener> listener = listen(kDevice);
    EXPECT_EQ(caller_->answer(sendPincode(kDevice, "123456")), "return()");
    settle();
    EXPECT_THAT(listener->pincodes, ElementsAre("123456"));
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AgentMessages, AnEmptyPincodeReachesTheDeviceAsItIs) {
    const Ref<Listener> listener = listen(kDevice);
    EXPECT_EQ(caller_->answer(sendPincode(kDevice, "")), "return()");
    settle();
    EXPECT_THAT(listener->pincodes, ElementsAre(""));
}

TEST_F(AgentMessages, FurtherArgumentsOfDisplayPinCodeAreIgnored) {
    const Ref<Listener> listener = listen(kDevice);
    const dbus_uint32_t serial = caller_->send(kAgent, "DisplayPinCode", [](DBusMessageIter* arguments) {
        append(arguments, ObjectPath{kDevice});
        append(arguments, "0000");
        append(arguments, std::uint32_t{1});
    });
    EXPECT_EQ(caller_->answer(serial), "return()");
    settle();
    EXPECT_THAT(listener->pincodes, ElementsAre("0000"));
}

TEST_F(AgentMessages, APincodeForADeviceWithoutAListenerIsAnsweredAndNothingElse) {
    const Ref<Listener> listener = listen(kDevice);
    EXPECT_EQ(caller_->answer(sendPincode(kOtherDevice, "123456")), "return()");
    settle();
    EXPECT_THAT(listener->pincodes, IsEmpty());
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AgentMessages, EachOfTwoPairingDevicesGetsItsOwnPincode) {
    const Ref<Listener> listener = listen(kDevice);
    const Ref<Listener> other = listen(kOtherDevice);
    EXPECT_FALSE(agent_.addListener(String::create(kDevice), other));
    sendPincode(kOtherDevice, "222222");
    sendPincode(kDevice, "111111");
    settle();
    EXPECT_THAT(listener->pincodes, ElementsAre("111111"));
    EXPECT_THAT(other->pincodes, ElementsAre("222222"));
}

TEST_F(AgentMessages, RemovingTheMiddleOfThreeListenersKeepsTheOtherTwo) {
    const Ref<Listener> first = listen("/a");
    const Ref<Listener> second = listen("/b");
    const Ref<Listener> third = listen("/c");
    EXPECT_TRUE(agent_.removeListener(String::create("/b")));
    sendPincode("/a", "1");
    sendPincode("/b", "2");
    sendPincode("/c", "3");
    settle();
    EXPECT_THAT(first->pincodes, ElementsAre("1"));
    EXPECT_THAT(second->pincodes, IsEmpty());
    EXPECT_THAT(third->pincodes, ElementsAre("3"));
}

TEST_F(AgentMessages, BluezIsAnsweredBeforeTheListenerRuns) {
    const Ref<Listener> listener = listen(kDevice);
    std::promise<void> release;
    listener->then = [&] { release.get_future().wait(); };
    EXPECT_EQ(caller_->answer(sendPincode(kDevice, "123456")), "return()");
    release.set_value();
    settle();
    EXPECT_EQ(listener->pincodes.size(), 1u);
}

TEST_F(AgentMessages, AListenerMayRemoveItselfWhileItIsTold) {
    const Ref<Listener> listener = listen(kDevice);
    listener->then = [this] { EXPECT_TRUE(agent_.removeListener(String::create(kDevice))); };
    sendPincode(kDevice, "1");
    sendPincode(kDevice, "2");
    settle();
    EXPECT_THAT(listener->pincodes, ElementsAre("1"));
}

TEST_F(AgentMessages, AMalformedDisplayPinCodeIsDroppedInSilence) {
    const Ref<Listener> listener = listen(kDevice);
    const std::vector<FakePeer::Build> malformed{
        {},
        [](DBusMessageIter* arguments) {
            append(arguments, kDevice);  // a text, no object path
            append(arguments, "123456");
        },
        [](DBusMessageIter* arguments) { append(arguments, ObjectPath{kDevice}); },
        [](DBusMessageIter* arguments) {
            append(arguments, ObjectPath{kDevice});
            append(arguments, std::uint32_t{123456});
        },
        [](DBusMessageIter* arguments) {
            append(arguments, ObjectPath{kDevice});
            append(arguments, std::vector<std::string>{"123456"});
        },
        [](DBusMessageIter* arguments) {
            append(arguments, BusDict{{"device", ObjectPath{kDevice}}});
        },
    };
    for (const FakePeer::Build& build : malformed) {
        EXPECT_FALSE(isAnswered(caller_->send(kAgent, "DisplayPinCode", build)));
    }
    EXPECT_THAT(listener->pincodes, IsEmpty());
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AgentMessages, AnotherMethodOfTheAgentIsLoggedAndNotAnswered) {
    EXPECT_FALSE(isAnswered(caller_->send(kAgent, "RequestPinCode")));
    EXPECT_FALSE(isAnswered(caller_->send(kAgent, "Introspect")));
    EXPECT_THAT(log_.records(), ElementsAre("3 Unsupported authentication method RequestPinCode",
                                            "3 Unsupported authentication method Introspect"));
}

TEST_F(AgentMessages, AnotherInterfaceIsLoggedAndNotAnswered) {
    EXPECT_FALSE(isAnswered(caller_->send("org.bluez.Adapter1", "DisplayPinCode")));
    EXPECT_FALSE(isAnswered(caller_->send(DBUS_INTERFACE_INTROSPECTABLE, "Other")));
    EXPECT_THAT(log_.records(), ElementsAre("3 Unexpected interface org.bluez.Adapter1",
                                            "3 Unexpected interface org.freedesktop.DBus.Introspectable"));
}

TEST_F(AgentMessages, ACallWithoutAnInterfaceIsLoggedWithAnEmptyOne) {
    EXPECT_FALSE(isAnswered(caller_->send(nullptr, "DisplayPinCode")));
    EXPECT_THAT(log_.records(), ElementsAre("3 Unexpected interface "));
}

TEST_F(AgentMessages, ListenersComeAndGoWhilePincodesPourIn) {
    std::thread changing([this] {
        for (int round = 0; round < 2000; ++round) {
            agent_.addListener(String::create(kDevice), Ref<Listener>(new Listener));
            agent_.removeListener(String::create(kDevice));
        }
    });
    for (int count = 0; count < 500; ++count) sendPincode(kDevice, "1");
    changing.join();
    settle();
    EXPECT_FALSE(agent_.removeListener(String::create(kDevice)));
}

}  // namespace
}  // namespace UnitTest
