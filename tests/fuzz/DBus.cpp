// What BlueZ, or anybody else on the bus, sends: signals, calls of the agent, and replies, all through a real bus to a
// whole service. The fuzzer is its dispatch thread; BlueZ has a thread of its own.
#include <set>

#include "devices/Devices.h"
#include "platform/dbus/Util.h"
#include "platform/host/SysLog.h"
#include "service/Service.h"
#include "tests/fuzz/Bodies.h"
#include "tests/fuzz/Check.h"
#include "tests/unit/support/FakePeer.h"
#include "tests/unit/support/NodeRoot.h"
#include "tests/unit/support/PrivateBus.h"

namespace {

namespace DBus = Libraries::Platform::Posix::DBus;
using Fuzz::check;
using Fuzz::Choices;
using Services::Bluetooth::Linux::Service;
using UnitTest::FakePeer;

constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kAgentPath = "/com/kelvo/bluetooth/service";
constexpr const char* kAgent = "org.bluez.Agent1";
constexpr const char* kOwnInterface = "com.kelvo.Fuzzer";
constexpr int kMostSteps = 8;
constexpr std::uint64_t kPropertyTimeoutMs = 5000;

/// A service on a bus, for all inputs.
class World {
public:
    World() : bluez_(UnitTest::PrivateBus::address()) {
        UnitTest::nodeRoot();
        SysLogFilter::setLevel(5);
        bluez_.on(kObjectManager, "GetManagedObjects",
                  FakePeer::answers([](DBusMessageIter* iter) { UnitTest::append(iter, UnitTest::BusObjects()); }));
        bluez_.on("org.bluez.AgentManager1", "RegisterAgent", FakePeer::answers());
        bluez_.on(kProperties, "Get", [this](const FakePeer::Request& request) { answer(request); });
        service_ = Service::create();
        check(service_ && service_->initialize(), "the service starts");
        serviceName_ = ownerOf(bluez_.calls().front());
        DBus::dbus_connection_add_filter(service_->connection(), &World::onMessage, this, nullptr);
    }

    void run(Choices choices) {
        {
            const std::lock_guard guard(lock_);
            replies_ = choices.split();
        }
        for (int left = kMostSteps; left > 0 && !choices.atEnd(); --left) step(choices);
        settle();
        // What one input leaves behind is no matter of the next one's.
        for (const std::string& path : added_) removeObject(path);
        added_.clear();
        settle();
        bluez_.forgetCalls();
    }

private:
    static std::string ownerOf(const FakePeer::Call& call) { return call.sender; }

    /// A reply with any body, on BlueZ's thread.
    void answer(const FakePeer::Request& request) {
        const std::lock_guard guard(lock_);
        if (replies_.below(8) == 7) return request.error("org.bluez.Error.Failed");
        request.reply([this](DBusMessageIter* iter) { check(appendBody(replies_, iter, "v"), "a body is built"); });
    }

    void step(Choices& choices) {
        switch (choices.below(8)) {
            case 0:
            case 1:
                return signal(choices, "/", kObjectManager, "InterfacesAdded", "oa{sa{sv}}");
            case 2:
                return signal(choices, "/", kObjectManager, "InterfacesRemoved", "oas");
            case 3:
                return signal(choices, choices.objectPath(), kProperties, "PropertiesChanged", "sa{sv}as");
            case 4:
                return signal(choices, choices.objectPath(), Fuzz::interfaceName(choices), Fuzz::memberName(choices),
                              "sv");
            case 5:
                return call(choices, kAgentPath, kAgent, "DisplayPinCode");
            case 6:
                return call(choices, kAgentPath, Fuzz::interfaceName(choices), Fuzz::memberName(choices));
            default:
                return read(choices);
        }
    }

    void signal(Choices& choices, const std::string& path, const char* interface, const char* member,
                std::string_view likely) {
        const FakePeer::Message message(::dbus_message_new_signal(path.c_str(), interface, member),
                                        &::dbus_message_unref);
        fill(choices, message, likely);
        DBusMessageIter first;
        if (::dbus_message_iter_init(message.get(), &first) &&
            ::dbus_message_iter_get_arg_type(&first) == DBUS_TYPE_OBJECT_PATH) {
            added_.insert(std::string(DBus::Util::getString(&first)->view()));
        }
        bluez_.send(message);
    }

    void call(Choices& choices, const char* path, const char* interface, const char* member) {
        const FakePeer::Message message(::dbus_message_new_method_call(serviceName_.c_str(), path, interface, member),
                                        &::dbus_message_unref);
        fill(choices, message, "os");
        bluez_.send(message);
    }

    static void fill(Choices& choices, const FakePeer::Message& message, std::string_view likely) {
        DBusMessageIter iter;
        ::dbus_message_iter_init_append(message.get(), &iter);
        check(appendBody(choices, &iter, likely), "a body is built");
    }

    /// Goes through all that the iterator stands on, as far as the helpers lead.
    static void walk(DBusMessageIter* iter, int deepest) {
        if (deepest == 0) return;
        const int type = DBus::dbus_message_iter_get_arg_type(iter);
        const Ref<String> text = DBus::Util::getString(iter);
        check((text != nullptr) == (type == DBUS_TYPE_STRING || type == DBUS_TYPE_OBJECT_PATH), "texts are read");
        std::size_t elements = 0;
        const bool isArray = DBus::Util::iterArray(iter, [&](DBusMessageIter* element) {
            walk(element, deepest - 1);
            return ++elements < 100;
        });
        check(isArray == (type == DBUS_TYPE_ARRAY), "arrays are gone through");
        std::size_t entries = 0;
        const bool isDict = DBus::Util::iterDict(iter, [&](DBusMessageIter* entry) {
            walk(entry, deepest - 1);
            if (DBus::dbus_message_iter_next(entry)) walk(entry, deepest - 1);
            return ++entries < 100;
        });
        check(isArray || !isDict, "a dictionary is an array");
        check(!isDict || entries == elements, "an entry is an element");
        if (type != DBUS_TYPE_VARIANT) return;
        DBusMessageIter held;
        DBus::dbus_message_iter_recurse(iter, &held);
        walk(&held, deepest - 1);
    }

    /// The helpers, with replies of any body.
    void read(Choices& choices) {
        const Ref<String> bluez = String::create("org.bluez");
        const Ref<String> path = String::create(choices.objectPath());
        const Ref<String> interface = String::create("org.bluez.Device1");
        const Ref<String> property = String::create(choices.text());
        DBus::DBusConnection* const connection = service_->connection();
        DBusBasicValue value{};
        int type = DBUS_TYPE_INVALID;
        if (DBus::Util::getPropertyBasic(bluez, path, connection, kPropertyTimeoutMs, interface, property, &value,
                                         &type)) {
            check(::dbus_type_is_basic(type), "a basic value has a basic type");
            if (type == DBUS_TYPE_STRING) check(String::create(std::string_view(value.str)) != nullptr, "a text");
        }
        DBus::Util::getProperty(bluez, path, connection, kPropertyTimeoutMs, interface, property,
                                [](DBusMessageIter* variant) { walk(variant, 16); });
        DBusMessage* const message = DBus::dbus_message_new_method_call("org.bluez", "/", kProperties, "Get");
        ++outstanding_;
        const bool sent =
            DBus::Util::callMethodAsync(connection, kPropertyTimeoutMs, message, &World::onAnswered, this, nullptr);
        check(sent, "a call is sent");
    }

    static void onAnswered(DBus::DBusPendingCall* pending, void* world) {
        --static_cast<World*>(world)->outstanding_;
        const DBus::MessagePtr reply(DBus::dbus_pending_call_steal_reply(pending));
        check(reply != nullptr, "a call is answered");
        DBusMessageIter iter;
        if (!DBus::dbus_message_iter_init(reply.get(), &iter)) return;
        do walk(&iter, 16);
        while (DBus::dbus_message_iter_next(&iter));
    }

    void removeObject(const std::string& path) {
        bluez_.emit("/", kObjectManager, "InterfacesRemoved", [&](DBusMessageIter* iter) {
            UnitTest::append(iter, UnitTest::ObjectPath{path});
            UnitTest::append(iter, std::vector<std::string>{"org.bluez.Device1"});
        });
        bluez_.emit("/", kObjectManager, "InterfacesRemoved", [&](DBusMessageIter* iter) {
            UnitTest::append(iter, UnitTest::ObjectPath{path});
            UnitTest::append(iter, std::vector<std::string>{"org.bluez.Adapter1"});
        });
    }

    /// Dispatches what BlueZ has sent so far, and answers to what was asked.
    void settle() {
        settled_ = false;
        bluez_.emit("/", kOwnInterface, "Settle", {}, serviceName_);
        while (!settled_ || outstanding_ > 0) {
            check(DBus::dbus_connection_read_write_dispatch(service_->connection(), 1000), "the bus stays");
        }
    }

    static DBusHandlerResult onMessage(DBus::DBusConnection*, DBusMessage* message, void* world) {
        if (!::dbus_message_is_signal(message, kOwnInterface, "Settle")) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        static_cast<World*>(world)->settled_ = true;
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    UnitTest::PrivateBus bus_;
    FakePeer bluez_;
    Ref<Service> service_;
    std::string serviceName_;
    std::set<std::string> added_;
    bool settled_ = false;
    int outstanding_ = 0;
    std::mutex lock_;
    Choices replies_{{}};  // BlueZ's thread reads them, under the lock
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Left to the end of the process: the fuzzer ends in the middle of things.
    static World* const world = new World;
    world->run(Choices(Fuzz::viewOf(data, size)));
    return 0;
}
