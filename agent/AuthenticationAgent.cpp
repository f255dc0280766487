#include "agent/AuthenticationAgent.h"

#include <algorithm>

#include "agent/Introspection.h"
#include "platform/dbus/Util.h"
#include "platform/host/InitCode.h"
#include "platform/host/SysLog.h"

// Answers to BlueZ: a call that the agent understands gets an empty return (BlueZ waits for it before it goes on with
// the pairing), anything else gets none. BlueZ makes no other call to an agent that can show a pincode and nothing
// more, and ends a call that stays unanswered by itself. Whatever reaches the agent's path counts as handled.

namespace Services::Bluetooth::Linux {

namespace {

constexpr const char* kAgentPath = "/com/kelvo/bluetooth/service";
constexpr const char* kAgentInterface = "org.bluez.Agent1";
constexpr const char* kBluez = "org.bluez";
constexpr const char* kAgentManagerPath = "/org/bluez";
constexpr const char* kAgentManagerInterface = "org.bluez.AgentManager1";
constexpr const char* kCapability = "NoInputNoOutput";
constexpr int kManagerTimeoutMs = 1000;

std::uint64_t logHandle = 0;
const InitCode::Register registerLog([] { logHandle = SysLogFilter::reg(String::create("ServiceBluetoothLinux")); });

/// Null stands for an absent header field.
std::string_view text(const char* field) {
    return field ? std::string_view(field) : std::string_view();
}

}  // namespace

AuthenticationAgent::AuthenticationAgent() : listeners_(TVector<EventListenerPrivate>::create()) {}

AuthenticationAgent::~AuthenticationAgent() = default;

bool AuthenticationAgent::registerAgent(DBus::DBusConnection* connection) {
    static constexpr DBus::DBusObjectPathVTable vtable{nullptr, &AuthenticationAgent::handleMessage};
    DBusError error;
    DBus::dbus_error_init(&error);
    if (!DBus::dbus_connection_try_register_object_path(connection, kAgentPath, &vtable, this, &error)) {
        LogRecord(4, logHandle) << "Failed to register object: " << error.message;
        return false;
    }

    DBusMessage* const call =
        DBus::dbus_message_new_method_call(kBluez, kAgentManagerPath, kAgentManagerInterface, "RegisterAgent");
    if (!call) return false;
    DBusMessageIter arguments;
    DBus::dbus_message_iter_init_append(call, &arguments);
    if (!DBus::dbus_message_iter_append_basic(&arguments, DBUS_TYPE_OBJECT_PATH, &kAgentPath) ||
        !DBus::dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &kCapability)) {
        DBus::dbus_message_unref(call);
        return false;
    }
    DBusMessage* const reply =
        DBus::dbus_connection_send_with_reply_and_block(connection, call, kManagerTimeoutMs, &error);
    DBus::dbus_message_unref(call);
    if (!reply || DBus::dbus_error_is_set(&error)) {
        LogRecord(4, logHandle) << "Could not register agent: " << error.message;
        // Mostly null; the host then refuses it with a warning on standard error, which is wanted.
        DBus::dbus_message_unref(reply);
        return false;
    }
    DBus::dbus_message_unref(reply);
    LogRecord(1, logHandle) << "Authentication agent successfully registered";
    return true;
}

void AuthenticationAgent::unregisterAgent(DBus::DBusConnection* connection) {
    DBusError error;
    DBus::dbus_error_init(&error);
    DBusMessage* const call =
        DBus::dbus_message_new_method_call(kBluez, kAgentManagerPath, kAgentManagerInterface, "UnregisterAgent");
    if (!call) return;
    // Without an argument, on purpose: BlueZ drops the agent together with the connection that is closed next, and
    // answers this call with an error, which is logged.
    DBusMessage* const reply =
        DBus::dbus_connection_send_with_reply_and_block(connection, call, kManagerTimeoutMs, &error);
    DBus::dbus_message_unref(call);
    if (!reply || DBus::dbus_error_is_set(&error)) {
        LogRecord(3, logHandle) << "Failed to de-register authentication agent: " << error.message;
    }
    if (reply) DBus::dbus_message_unref(reply);
}

bool AuthenticationAgent::addListener(Ref<String> path, Ref<EventListener> listener) {
    EventListenerPrivate entry{std::move(path), std::move(listener)};
    const MonGuard guard(listenersLock_);
    auto& items = listeners_->items;
    if (std::find(items.begin(), items.end(), entry) != items.end()) return false;
    items.push_back(std::move(entry));
    return true;
}

bool AuthenticationAgent::removeListener(Ref<String> path) {
    return takeListener(path, nullptr) != nullptr;
}

bool AuthenticationAgent::removeListener(Ref<String> path, const EventListener* listener) {
    return takeListener(path, listener) != nullptr;
}

Ref<AuthenticationAgent::EventListener> AuthenticationAgent::takeListener(const Ref<String>& path,
                                                                          const EventListener* only) {
    // The caller releases what was taken without the lock: it may be the last reference.
    const MonGuard guard(listenersLock_);
    auto& items = listeners_->items;
    const auto found = std::find(items.begin(), items.end(), EventListenerPrivate{path, nullptr});
    if (found == items.end() || (only && found->listener.get() != only)) return nullptr;
    Ref<EventListener> listener = std::move(found->listener);
    items.erase(found);
    return listener;
}

DBusHandlerResult AuthenticationAgent::handleMessage(DBus::DBusConnection* connection, DBusMessage* message,
                                                     void* agent) {
    auto* const self = static_cast<AuthenticationAgent*>(agent);
    self->dispatchThread_.check();
    return self->handle(connection, message);
}

DBusHandlerResult AuthenticationAgent::handle(DBus::DBusConnection* connection, DBusMessage* message) {
    // Both fields may be absent: a call may leave out its interface.
    const std::string_view interface = text(DBus::dbus_message_get_interface(message));
    const std::string_view member = text(DBus::dbus_message_get_member(message));
    if (interface == DBUS_INTERFACE_INTROSPECTABLE && member == "Introspect") return introspect(connection, message);
    if (interface != kAgentInterface) {
        LogRecord(3, logHandle) << "Unexpected interface " << interface;
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (member == "DisplayPinCode") return displayPinCode(connection, message);
    if (member == "Cancel") return DBUS_HANDLER_RESULT_HANDLED;
    LogRecord(3, logHandle) << "Unsupported authentication method " << member;
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult AuthenticationAgent::introspect(DBus::DBusConnection* connection, DBusMessage* message) {
    const DBus::MessagePtr reply(DBus::dbus_message_new_method_return(message));
    if (!reply) return DBUS_HANDLER_RESULT_NEED_MEMORY;
    DBusMessageIter arguments;
    DBus::dbus_message_iter_init_append(reply.get(), &arguments);
    const char* const description = kIntrospection;
    DBus::dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &description);
    DBus::dbus_connection_send(connection, reply.get(), nullptr);
    return DBUS_HANDLER_RESULT_HANDLED;
}

DBusHandlerResult AuthenticationAgent::displayPinCode(DBus::DBusConnection* connection, DBusMessage* message) {
    DBusMessageIter argument;
    DBus::dbus_message_iter_init(message, &argument);
    if (DBus::dbus_message_iter_get_arg_type(&argument) != DBUS_TYPE_OBJECT_PATH) return DBUS_HANDLER_RESULT_HANDLED;
    const Ref<String> device = DBus::Util::getString(&argument);
    if (!DBus::dbus_message_iter_next(&argument) ||
        DBus::dbus_message_iter_get_arg_type(&argument) != DBUS_TYPE_STRING) {
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    const Ref<String> pincode = DBus::Util::getString(&argument);

    // BlueZ is answered before the listener runs.
    const DBus::MessagePtr reply(DBus::dbus_message_new_method_return(message));
    if (!reply) return DBUS_HANDLER_RESULT_NEED_MEMORY;
    DBus::dbus_connection_send(connection, reply.get(), nullptr);

    notifyListener(device, Event{EVENT_DISPLAY_PINCODE, {NodeValue::makeString(String::create("pincode"), pincode)}});
    return DBUS_HANDLER_RESULT_HANDLED;
}

void AuthenticationAgent::notifyListener(const Ref<String>& path, const Event& event) {
    Ref<EventListener> listener;
    {
        const MonGuard guard(listenersLock_);
        const auto& items = listeners_->items;
        const auto found = std::find(items.begin(), items.end(), EventListenerPrivate{path, nullptr});
        if (found != items.end()) listener = found->listener;
    }
    if (listener) listener->handleEvent(event);
}

}  // namespace Services::Bluetooth::Linux
