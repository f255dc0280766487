#include <unistd.h>

#include "tests/unit/dbus/Bus.h"

// The six conveniences: what they read, and that wrong types and failures are results.

namespace UnitTest {
namespace {

namespace Util = DBus::Util;

constexpr std::uint64_t kAllBits = 0xFFFFFFFFu;

class Helpers : public Bus {
protected:
    bool get(const char* property, DBusBasicValue* value, int* type = nullptr, std::uint64_t timeout = kAllBits) {
        return Util::getPropertyBasic(String::create(kPeer), String::create("/dev"), connection_, timeout,
                                      String::create(kInterface), String::create(property), value, type);
    }
    void set(const char* property, BusValue value) { peer_.setProperty("/dev", kInterface, property, value); }
    void answerGetWith(FakePeer::Handler handler) {
        peer_.on("org.freedesktop.DBus.Properties", "Get", std::move(handler));
    }
};

/// A message with arguments to iterate over.
class Arguments {
public:
    explicit Arguments(const FakePeer::Build& build) : message_(methodCall("Any")) {
        DBusMessageIter iter;
        ::dbus_message_iter_init_append(message_.get(), &iter);
        build(&iter);
        ::dbus_message_iter_init(message_.get(), &iter_);
    }
    explicit Arguments(const BusValue& value) : Arguments([&](DBusMessageIter* iter) { append(iter, value); }) {}
    DBusMessageIter* iter() { return &iter_; }

private:
    DBus::MessagePtr message_;
    DBusMessageIter iter_;
};

TEST_F(Helpers, ReadPropertiesOfBasicTypes) {
    set("Text", "name");
    set("Path", ObjectPath{"/a/b"});
    set("Flag", true);
    set("Number", std::uint32_t{0x240404});
    set("Wide", std::uint64_t{1} << 40);
    set("Real", 2.5);
    DBusBasicValue value;
    int type = 0;
    ASSERT_TRUE(get("Text", &value, &type));
    EXPECT_STREQ(value.str, "name");
    EXPECT_EQ(type, DBUS_TYPE_STRING);
    ASSERT_TRUE(get("Path", &value, &type));
    EXPECT_STREQ(value.str, "/a/b");
    EXPECT_EQ(type, DBUS_TYPE_OBJECT_PATH);
    ASSERT_TRUE(get("Flag", &value, &type));
    EXPECT_TRUE(value.bool_val);
    EXPECT_EQ(type, DBUS_TYPE_BOOLEAN);
    ASSERT_TRUE(get("Number", &value));
    EXPECT_EQ(value.u32, 0x240404u);
    ASSERT_TRUE(get("Wide", &value));
    EXPECT_EQ(value.u64, std::uint64_t{1} << 40);
    ASSERT_TRUE(get("Real", &value));
    EXPECT_EQ(value.dbl, 2.5);
    EXPECT_EQ(peer_.calls()[0].text(), "/dev org.freedesktop.DBus.Properties.Get(\"test.Interface\", \"Text\")");
}

TEST_F(Helpers, LeaveTheValueOfAPropertyThatCannotBeRead) {
    DBusBasicValue value;
    value.u64 = 42;
    int type = 7;
    set("List", std::vector<std::string>{"a"});
    EXPECT_FALSE(get("List", &value, &type));
    EXPECT_FALSE(get("Missing", &value, &type));
    answerGetWith(FakePeer::answers([](DBusMessageIter* iter) {
        const int descriptor = STDERR_FILENO;
        DBusMessageIter variant;
        ::dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, DBUS_TYPE_UNIX_FD_AS_STRING, &variant);
        ::dbus_message_iter_append_basic(&variant, DBUS_TYPE_UNIX_FD, &descriptor);
        ::dbus_message_iter_close_container(iter, &variant);
    }));
    EXPECT_FALSE(get("Descriptor", &value, &type));
    answerGetWith(FakePeer::answers([](DBusMessageIter* iter) { append(iter, "no variant"); }));
    EXPECT_FALSE(get("Any", &value, &type));
    answerGetWith(FakePeer::answers());
    EXPECT_FALSE(get("Any", &value, &type));
    answerGetWith(FakePeer::fails("test.Error"));
    EXPECT_FALSE(get("Any", &value, &type));
    answerGetWith(FakePeer::silent());
    EXPECT_FALSE(get("Any", &value, &type, 20));
    EXPECT_EQ(value.u64, 42u);
    EXPECT_EQ(type, 7);
}

TEST_F(Helpers, FailWithoutSendingWhatIsMalformed) {
    DBusBasicValue value;
    const auto get = [&](const Ref<String>& service, const Ref<String>& path, const Ref<String>& property) {
        return Util::getPropertyBasic(service, path, connection_, kAllBits, String::create(kInterface), property,
                                      &value);
    };
    const auto peer = String::create(kPeer);
    const auto path = String::create("/dev");
    const auto name = String::create("Text");
    EXPECT_FALSE(get(String::create("no name"), path, name));
    EXPECT_FALSE(get(peer, String::create("dev/"), name));
    EXPECT_FALSE(get(peer, path, String::create("\xff")));
    EXPECT_FALSE(get(peer, nullptr, name));
    EXPECT_FALSE(get(peer, path, nullptr));
    EXPECT_TRUE(peer_.calls().empty());
}

TEST_F(Helpers, KeepATextUntilTheThreadsNextRead) {
    set("Text", std::string(1000, 'x'));
    DBusBasicValue value;
    ASSERT_TRUE(get("Text", &value));
    set("Text", "other");
    std::thread([&] {
        DBusBasicValue other;
        EXPECT_TRUE(get("Text", &other));
    }).join();
    DBusBasicValue failed;
    EXPECT_FALSE(get("Missing", &failed));
    EXPECT_EQ(value.str, std::string(1000, 'x'));
}

TEST_F(Helpers, HandOverTheVariantOfAPropertyOfAnyType) {
    set("UUIDs", std::vector<std::string>{"a", "b"});
    std::string seen;
    const auto read = [&](const char* property) {
        return Util::getProperty(String::create(kPeer), String::create("/dev"), connection_, kAllBits,
                                 String::create(kInterface), String::create(property), [&](DBusMessageIter* iter) {
                                     ASSERT_EQ(::dbus_message_iter_get_arg_type(iter), DBUS_TYPE_VARIANT);
                                     DBusMessageIter array;
                                     ::dbus_message_iter_recurse(iter, &array);
                                     Util::iterArray(&array, [&](DBusMessageIter* element) {
                                         seen += std::string(viewOf(Util::getString(element)));
                                         return true;
                                     });
                                 });
    };
    EXPECT_TRUE(read("UUIDs"));
    EXPECT_EQ(seen, "ab");
    EXPECT_FALSE(read("Missing"));
    answerGetWith(FakePeer::answers());
    EXPECT_FALSE(read("UUIDs"));
    EXPECT_EQ(seen, "ab");
}

TEST_F(Helpers, ReadStringsAndObjectPathsOnly) {
    EXPECT_EQ(viewOf(Util::getString(Arguments("text").iter())), "text");
    EXPECT_EQ(viewOf(Util::getString(Arguments(ObjectPath{"/p"}).iter())), "/p");
    EXPECT_FALSE(Util::getString(Arguments(std::uint32_t{1}).iter()));
    EXPECT_FALSE(Util::getString(Arguments(std::vector<std::string>{"a"}).iter()));
    EXPECT_FALSE(Util::getString(Arguments([](DBusMessageIter*) {}).iter()));
    EXPECT_FALSE(Util::getString(Arguments([](DBusMessageIter* iter) { appendVariant(iter, "in"); }).iter()));
}

TEST_F(Helpers, WalkAnArrayUntilTold) {
    const std::vector<std::string> texts{"a", "b", "c"};
    std::string seen;
    const auto walk = [&](DBusMessageIter* iter, char last) {
        seen.clear();
        return Util::iterArray(iter, [&](DBusMessageIter* element) {
            seen += viewOf(Util::getString(element));
            ::dbus_message_iter_next(element);  // what the callable does with its iterator is its own affair
            return seen.back() != last;
        });
    };
    EXPECT_TRUE(walk(Arguments(texts).iter(), 'z'));
    EXPECT_EQ(seen, "abc");
    EXPECT_TRUE(walk(Arguments(texts).iter(), 'b'));
    EXPECT_EQ(seen, "ab");
    EXPECT_TRUE(walk(Arguments(std::vector<std::string>{}).iter(), 'z'));
    EXPECT_FALSE(walk(Arguments("text").iter(), 'z'));
    EXPECT_FALSE(walk(Arguments([](DBusMessageIter*) {}).iter(), 'z'));
    EXPECT_EQ(seen, "");
}

TEST_F(Helpers, WalkADictionaryOnItsKeysUntilTold) {
    const BusDict dict{{"a", std::uint32_t{1}}, {"b", "two"}, {"c", true}};
    std::string seen;
    const auto walk = [&](DBusMessageIter* iter, char last) {
        seen.clear();
        return Util::iterDict(iter, [&](DBusMessageIter* entry) {
            seen += viewOf(Util::getString(entry));
            EXPECT_TRUE(::dbus_message_iter_next(entry));
            EXPECT_EQ(::dbus_message_iter_get_arg_type(entry), DBUS_TYPE_VARIANT);
            return seen.back() != last;
        });
    };
    EXPECT_TRUE(walk(Arguments(dict).iter(), 'z'));
    EXPECT_EQ(seen, "abc");
    EXPECT_TRUE(walk(Arguments(dict).iter(), 'b'));
    EXPECT_EQ(seen, "ab");
    EXPECT_TRUE(walk(Arguments(BusDict{}).iter(), 'z'));
    EXPECT_FALSE(walk(Arguments(std::vector<std::string>{"a"}).iter(), 'z'));
    EXPECT_FALSE(walk(Arguments("text").iter(), 'z'));
    EXPECT_EQ(seen, "");
}

TEST_F(Helpers, WalkNestedDictionaries) {
    Arguments arguments([](DBusMessageIter* iter) {
        append(iter, BusObjects{{"/a", {{"i.One", {{"Address", "x"}}}, {"i.Two", {}}}}, {"/b", {}}});
    });
    std::string seen;
    EXPECT_TRUE(Util::iterDict(arguments.iter(), [&](DBusMessageIter* object) {
        seen += viewOf(Util::getString(object));
        ::dbus_message_iter_next(object);
        return Util::iterDict(object, [&](DBusMessageIter* interface) {
            seen += ' ' + std::string(viewOf(Util::getString(interface)));
            return true;
        });
    }));
    EXPECT_EQ(seen, "/a i.One i.Two/b");
}

TEST(Messages, ThatAreMalformedAreNotMade) {
    const auto makes = [](const char* destination, const char* path, const char* interface, const char* member) {
        return DBus::MessagePtr(DBus::dbus_message_new_method_call(destination, path, interface, member)) != nullptr;
    };
    EXPECT_TRUE(makes("org.bluez", "/a", "a.b", "C"));
    EXPECT_TRUE(makes(nullptr, "/a", nullptr, "C"));
    EXPECT_FALSE(makes("org..bluez", "/a", "a.b", "C"));
    EXPECT_FALSE(makes("org.bluez", "a", "a.b", "C"));
    EXPECT_FALSE(makes("org.bluez", nullptr, "a.b", "C"));
    EXPECT_FALSE(makes("org.bluez", "/a", "ab", "C"));
    EXPECT_FALSE(makes("org.bluez", "/a", "a.b", "C."));
}

TEST(Messages, RefuseArgumentsThatAreMalformed) {
    const auto message = methodCall("Any");
    DBusMessageIter iter;
    DBus::dbus_message_iter_init_append(message.get(), &iter);
    const auto appends = [&](int type, const char* text) {
        return DBus::dbus_message_iter_append_basic(&iter, type, static_cast<const void*>(&text)) != 0;
    };
    EXPECT_TRUE(appends(DBUS_TYPE_STRING, "text"));
    EXPECT_FALSE(appends(DBUS_TYPE_STRING, "\xc3"));
    EXPECT_FALSE(appends(DBUS_TYPE_STRING, nullptr));
    EXPECT_FALSE(appends(DBUS_TYPE_OBJECT_PATH, "no/path"));
    EXPECT_TRUE(appends(DBUS_TYPE_SIGNATURE, "a{sv}"));
    EXPECT_FALSE(appends(DBUS_TYPE_SIGNATURE, "a{"));
    EXPECT_EQ(argumentsAsText(message.get()), "\"text\", a{sv}");
}

TEST(Messages, ThatAreNullAreRefusedWithAWarning) {
    ::testing::internal::CaptureStderr();
    DBus::dbus_message_unref(nullptr);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("dbus_message_unref"), std::string::npos);
}

}  // namespace
}  // namespace UnitTest
