#include <mutex>

#include "tests/unit/service/ServiceFixture.h"

namespace UnitTest {
namespace {

namespace DBus = Libraries::Platform::Posix::DBus;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const BusInterfaces kDeviceObject{{FakeBluez::kDevice, {{"Address", kDeviceAddress}}}};

/// What the service's filter left unhandled, seen by a filter behind it, as "INTERFACE.MEMBER".
class Unhandled {
public:
    explicit Unhandled(DBus::DBusConnection* connection) : connection_(connection) {
        DBus::dbus_connection_add_filter(connection_, &Unhandled::take, this, nullptr);
    }
    ~Unhandled() { DBus::dbus_connection_remove_filter(connection_, &Unhandled::take, this); }
    Unhandled(const Unhandled&) = delete;
    Unhandled& operator=(const Unhandled&) = delete;

    std::vector<std::string> messages() const {
        const std::lock_guard guard(lock_);
        return messages_;
    }

private:
    static DBusHandlerResult take(DBus::DBusConnection*, DBusMessage* message, void* self) {
        auto& all = *static_cast<Unhandled*>(self);
        const char* interface = ::dbus_message_get_interface(message);
        const char* member = ::dbus_message_get_member(message);
        const std::lock_guard guard(all.lock_);
        all.messages_.push_back(std::string(interface ? interface : "") + "." + (member ? member : ""));
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }

    DBus::DBusConnection* connection_;
    mutable std::mutex lock_;
    std::vector<std::string> messages_;
};

/// Appends containers of any types: for messages whose form is right and whose signature is not the promised one.
class Builder {
public:
    explicit Builder(DBusMessageIter* iter) : iter_(iter) {}

    void open(int type, const char* signature, const std::function<void(DBusMessageIter*)>& content) const {
        DBusMessageIter inner;
        ::dbus_message_iter_open_container(iter_, type, signature, &inner);
        content(&inner);
        ::dbus_message_iter_close_container(iter_, &inner);
    }
    /// An array of dictionary entries with this one entry.
    void entry(const char* signature, const std::function<void(DBusMessageIter*)>& content) const {
        open(DBUS_TYPE_ARRAY, signature,
             [&](DBusMessageIter* array) { Builder(array).open(DBUS_TYPE_DICT_ENTRY, nullptr, content); });
    }

private:
    DBusMessageIter* iter_;
};

class DiscoveryAtTheStart : public WithService {
protected:
    void answer(FakePeer::Build reply) {
        bluez_->on(FakeBluez::kManager, "GetManagedObjects", FakePeer::answers(std::move(reply)));
    }
    void expectNothingFound() {
        start();
        EXPECT_THAT(publishedNodes(), ElementsAre("bluetooth/master", "bluetooth/service"));
        EXPECT_THAT(bluez_->count(FakeBluez::kProperties, "Get"), 0u);
    }
};

TEST_F(DiscoveryAtTheStart, SucceedsWithoutObjects) {
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, FindsAdaptersAndDevicesAmongOtherInterfaces) {
    bluez_->setProperty(kAdapterPath, FakeBluez::kAdapter, "Address", kAdapterAddress);
    bluez_.addObject("/org/bluez", {{"org.freedesktop.DBus.Introspectable", {}}, {"org.bluez.AgentManager1", {}}});
    bluez_.addObject(
        kAdapterPath,
        {{"org.freedesktop.DBus.Introspectable", {}}, {FakeBluez::kAdapter, {}}, {"org.bluez.Media1", {}}});
    bluez_.addObject(kDevicePath,
                     {{"org.freedesktop.DBus.Introspectable", {}},
                      {FakeBluez::kDevice, {{"Name", "x"}, {"Address", kDeviceAddress}, {"Paired", false}}}});
    start();
    EXPECT_THAT(publishedNodes(), ElementsAre(kAdapterNode, kDeviceNode, "bluetooth/master", "bluetooth/service"));
}

TEST_F(DiscoveryAtTheStart, OfBothInterfacesTheFirstDecides) {
    const BusDict both{{"Address", kDeviceAddress}};
    bluez_->setProperty("/adapter", FakeBluez::kAdapter, "Address", kAdapterAddress);
    bluez_->setProperty("/device", FakeBluez::kAdapter, "Address", kAdapterAddress);
    bluez_.addObject("/adapter", {{FakeBluez::kAdapter, both}, {FakeBluez::kDevice, both}});
    bluez_.addObject("/device", {{FakeBluez::kDevice, both}, {FakeBluez::kAdapter, both}});
    start();
    EXPECT_THAT(log_.records(), Contains("1 Adapter added: /adapter"));
    EXPECT_THAT(log_.records(), Contains("1 Device added: /device"));
    EXPECT_THAT(log_.records(), Not(Contains("1 Device added: /adapter")));
    EXPECT_THAT(log_.records(), Not(Contains("1 Adapter added: /device")));
}

TEST_F(DiscoveryAtTheStart, ADeviceWithoutAReadableAddressIsLeftOutAndTheWalkGoesOn) {
    bluez_->setProperty("/both", FakeBluez::kAdapter, "Address", kAdapterAddress);
    bluez_.addObject("/missing", {{FakeBluez::kDevice, {{"Name", "x"}}}});
    bluez_.addObject("/number", {{FakeBluez::kDevice, {{"Address", std::uint32_t{1}}}}});
    bluez_.addObject("/path", {{FakeBluez::kDevice, {{"Address", ObjectPath{"/x"}}}}});
    bluez_.addObject("/list", {{FakeBluez::kDevice, {{"Address", std::vector<std::string>{kDeviceAddress}}}}});
    bluez_.addObject("/both", {{FakeBluez::kDevice, {}}, {FakeBluez::kAdapter, {}}});
    start();
    EXPECT_THAT(publishedNodes(), ElementsAre(kAdapterNode, "bluetooth/master", "bluetooth/service"));
}

TEST_F(DiscoveryAtTheStart, AnUnreadableAddressIsPassedOverForALaterOne) {
    bluez_.addObject(
        kDevicePath,
        {{FakeBluez::kDevice, {{"Address", std::uint32_t{1}}, {"Address", kDeviceAddress}, {"Address", "last"}}}});
    start();
    EXPECT_THAT(publishedNodes(), Contains(kDeviceNode));
}

TEST_F(DiscoveryAtTheStart, AReplyWithoutArgumentsFindsNothing) {
    answer({});
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, AReplyOfAnotherTypeFindsNothing) {
    answer([](DBusMessageIter* arguments) { append(arguments, FakeBluez::kAdapter); });
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, AReplyThatIsAListFindsNothing) {
    answer([](DBusMessageIter* arguments) {
        append(arguments, std::vector<std::string>{kAdapterPath, FakeBluez::kAdapter});
    });
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, ObjectsWhoseKeyIsNoPathArePassedOver) {
    answer([](DBusMessageIter* arguments) {
        Builder(arguments).entry("{sa{sa{sv}}}", [](DBusMessageIter* object) {
            append(object, kAdapterPath);
            append(object, BusInterfaces{{FakeBluez::kAdapter, {}}});
        });
    });
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, ObjectsWithoutInterfacesArePassedOver) {
    answer([](DBusMessageIter* arguments) {
        Builder(arguments).entry("{os}", [](DBusMessageIter* object) {
            append(object, ObjectPath{kAdapterPath});
            append(object, FakeBluez::kAdapter);
        });
    });
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, InterfacesWhoseNameIsNoTextArePassedOver) {
    answer([](DBusMessageIter* arguments) {
        Builder(arguments).entry("{oa{oa{sv}}}", [](DBusMessageIter* object) {
            append(object, ObjectPath{kAdapterPath});
            Builder(object).entry("{oa{sv}}", [](DBusMessageIter* interface) {
                append(interface, ObjectPath{"/org/bluez/Adapter1"});
                append(interface, BusDict{});
            });
        });
    });
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, PropertiesThatAreNoVariantsHoldNoAddress) {
    answer([](DBusMessageIter* arguments) {
        Builder(arguments).entry("{oa{sa{ss}}}", [](DBusMessageIter* object) {
            append(object, ObjectPath{kDevicePath});
            Builder(object).entry("{sa{ss}}", [](DBusMessageIter* interface) {
                append(interface, FakeBluez::kDevice);
                Builder(interface).entry("{ss}", [](DBusMessageIter* property) {
                    append(property, "Address");
                    append(property, kDeviceAddress);
                });
            });
        });
    });
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, PropertiesThatAreNoDictionaryHoldNoAddress) {
    answer([](DBusMessageIter* arguments) {
        Builder(arguments).entry("{oa{ss}}", [](DBusMessageIter* object) {
            append(object, ObjectPath{kDevicePath});
            Builder(object).entry("{ss}", [](DBusMessageIter* interface) {
                append(interface, FakeBluez::kDevice);
                append(interface, "Address");
            });
        });
    });
    expectNothingFound();
}

TEST_F(DiscoveryAtTheStart, AnAdaptersPropertiesInTheReplyNeedNoForm) {
    bluez_->setProperty(kAdapterPath, FakeBluez::kAdapter, "Address", kAdapterAddress);
    answer([](DBusMessageIter* arguments) {
        Builder(arguments).entry("{oa{ss}}", [](DBusMessageIter* object) {
            append(object, ObjectPath{kAdapterPath});
            Builder(object).entry("{ss}", [](DBusMessageIter* interface) {
                append(interface, FakeBluez::kAdapter);
                append(interface, "whatever");
            });
        });
    });
    start();
    EXPECT_THAT(publishedNodes(), Contains(kAdapterNode));
}

class DiscoveryBySignal : public WithService {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(start());
        ASSERT_NO_FATAL_FAILURE(settle());  // the bus's own greeting is not for the test
        unhandled_.emplace((*service_)->connection());
        log_.forget();
    }
    void TearDown() override { unhandled_.reset(); }

    void emit(const std::string& member, const FakePeer::Build& build = {}) {
        bluez_->emit("/", FakeBluez::kManager, member, build);
    }
    /// Waits until everything that was emitted so far has been dispatched.
    void settle() {
        const std::string path = "/marker" + std::to_string(++markers_);
        bluez_.addAdapter(path, "marker" + std::to_string(markers_));
        bluez_.announce(path, {{FakeBluez::kAdapter, {}}});
        ASSERT_TRUE(log_.waitFor("1 Adapter added: " + path));
    }
    void announceDevice() {
        bluez_.announce(kDevicePath, kDeviceObject);
        ASSERT_TRUE(log_.waitFor(std::string("1 Device added: ") + kDevicePath));
    }
    std::vector<std::string> passed() {
        settle();
        return unhandled_->messages();
    }

    int markers_ = 0;
    std::optional<Unhandled> unhandled_;
};

TEST_F(DiscoveryBySignal, AddsAndRemovesAnAdapter) {
    bluez_.addAdapter(kAdapterPath, kAdapterAddress);
    bluez_.announce(kAdapterPath, {{"org.bluez.Media1", {}}, {FakeBluez::kAdapter, {}}});
    ASSERT_TRUE(log_.waitFor("1 Adapter added: /org/bluez/unit0"));
    EXPECT_TRUE(isPublished(kAdapterNode));
    bluez_.withdraw(kAdapterPath, {"org.bluez.Media1", FakeBluez::kAdapter});
    ASSERT_TRUE(log_.waitFor("1 Adapter removed: /org/bluez/unit0"));
    EXPECT_FALSE(isPublished(kAdapterNode));
    EXPECT_THAT(passed(), IsEmpty());
}

TEST_F(DiscoveryBySignal, AddsADeviceAndRemovesItByAnInterfaceAfterOthers) {
    announceDevice();
    EXPECT_TRUE(isPublished(kDeviceNode));
    bluez_.withdraw(kDevicePath, {"org.freedesktop.DBus.Properties", "org.bluez.Battery1", FakeBluez::kDevice});
    ASSERT_TRUE(log_.waitFor(std::string("1 Device removed: ") + kDevicePath));
    EXPECT_TRUE(waitUntil([] { return !isPublished(kDeviceNode); }));
}

TEST_F(DiscoveryBySignal, ARemovalOfOtherInterfacesChangesNothingAndIsHandled) {
    announceDevice();
    bluez_.withdraw(kDevicePath, {"org.bluez.Battery1", "org.freedesktop.DBus.Properties"});
    bluez_.withdraw(kDevicePath, {});
    EXPECT_THAT(passed(), IsEmpty());
    EXPECT_TRUE(isPublished(kDeviceNode));
}

TEST_F(DiscoveryBySignal, TheFirstOfBothInterfacesDecidesARemoval) {
    announceDevice();
    bluez_.withdraw(kDevicePath, {FakeBluez::kAdapter, FakeBluez::kDevice});
    settle();
    EXPECT_TRUE(isPublished(kDeviceNode));
}

TEST_F(DiscoveryBySignal, ADeviceWithoutAReadableAddressIsNotAdded) {
    bluez_.announce(kDevicePath, {{FakeBluez::kDevice, {}}});
    bluez_.announce(kDevicePath, {{FakeBluez::kDevice, {{"Address", std::uint32_t{1}}}}});
    settle();
    EXPECT_FALSE(isPublished(kDeviceNode));
}

TEST_F(DiscoveryBySignal, MalformedAndUnknownSignalsAreHandledWithoutEffect) {
    announceDevice();
    for (const char* member : {"InterfacesAdded", "InterfacesRemoved", "SomethingElse"}) {
        emit(member);
        emit(member, [](DBusMessageIter* arguments) {
            append(arguments, kDevicePath);  // a text, no object path
            append(arguments, std::vector<std::string>{FakeBluez::kDevice});
        });
        emit(member, [](DBusMessageIter* arguments) { append(arguments, ObjectPath{kDevicePath}); });
        emit(member, [](DBusMessageIter* arguments) {
            append(arguments, ObjectPath{kDevicePath});
            append(arguments, FakeBluez::kDevice);
        });
        emit(member, [](DBusMessageIter* arguments) {
            append(arguments, ObjectPath{kDevicePath});
            append(arguments, std::vector<ObjectPath>{{"/org/bluez/Device1"}});
        });
        emit(member, [](DBusMessageIter* arguments) {
            append(arguments, ObjectPath{kDevicePath});
            Builder(arguments).open(DBUS_TYPE_ARRAY, "as", [](DBusMessageIter* array) {
                append(array, std::vector<std::string>{FakeBluez::kDevice});
            });
        });
    }
    emit("SomethingElse", [](DBusMessageIter* arguments) {
        append(arguments, ObjectPath{kDevicePath});
        append(arguments, std::vector<std::string>{FakeBluez::kDevice});
    });
    EXPECT_THAT(passed(), IsEmpty());
    EXPECT_TRUE(isPublished(kDeviceNode));
    EXPECT_FALSE(isPublished(kAdapterNode));
}

TEST_F(DiscoveryBySignal, SignalsFromOtherPathsAndInterfacesPassTheFilter) {
    DBusError error = DBUS_ERROR_INIT;
    DBus::dbus_bus_add_match((*service_)->connection(), "type='signal',sender='org.bluez'", &error);
    ASSERT_FALSE(::dbus_error_is_set(&error));
    const auto device = [](DBusMessageIter* arguments) {
        append(arguments, ObjectPath{kDevicePath});
        append(arguments, kDeviceObject);
    };
    bluez_->emit("/org", FakeBluez::kManager, "InterfacesAdded", device);
    bluez_->emit("/", "test.Manager", "InterfacesAdded", device);
    bluez_->emit(kAdapterPath, FakeBluez::kProperties, "PropertiesChanged", [](DBusMessageIter* arguments) {
        append(arguments, FakeBluez::kAdapter);
        append(arguments, BusDict{{"Discovering", true}});
        append(arguments, std::vector<std::string>{});
    });
    EXPECT_THAT(passed(),
                ElementsAre("org.freedesktop.DBus.ObjectManager.InterfacesAdded", "test.Manager.InterfacesAdded",
                            "org.freedesktop.DBus.Properties.PropertiesChanged"));
    EXPECT_FALSE(isPublished(kDeviceNode));
}

TEST_F(DiscoveryBySignal, AMethodCallOnTheObjectManagerPassesTheFilter) {
    const auto reply = bluez_->call(bluez_->calls().front().sender, "/", FakeBluez::kManager, "InterfacesAdded",
                                    [](DBusMessageIter* arguments) {
                                        append(arguments, ObjectPath{kDevicePath});
                                        append(arguments, kDeviceObject);
                                    });
    ASSERT_TRUE(reply);
    EXPECT_STREQ(::dbus_message_get_error_name(reply.get()), DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_FALSE(isPublished(kDeviceNode));
    EXPECT_THAT(passed(), ElementsAre("org.freedesktop.DBus.ObjectManager.InterfacesAdded"));
}

TEST_F(DiscoveryBySignal, AnySenderIsTaken) {
    FakePeer stranger(PrivateBus::address(), "test.stranger");
    stranger.emit("/", FakeBluez::kManager, "InterfacesAdded", [](DBusMessageIter* arguments) {
        append(arguments, ObjectPath{kDevicePath});
        append(arguments, kDeviceObject);
    });
    EXPECT_TRUE(log_.waitFor(std::string("1 Device added: ") + kDevicePath));
}

}  // namespace
}  // namespace UnitTest
