#include "platform/dbus/DBus.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/dbus/Connection.h"
#include "platform/dbus/Errors.h"

namespace Libraries::Platform::Posix::DBus {

namespace {

DBusPendingCall::Clock::time_point deadlineOf(int timeoutMs) {
    return timeoutMs == DBUS_TIMEOUT_INFINITE ? DBusPendingCall::kNoDeadline : deadlineAfter(timeoutMs);
}

/// Calls a method of the bus itself about a match rule. Null when that is impossible, with the error set.
MessagePtr matchCall(const char* method, const char* rule, DBusError* error) {
    // libdbus ends the process when it is told to append a text that is not UTF-8.
    if (!::dbus_validate_utf8(rule, error)) return nullptr;
    MessagePtr call(::dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, method));
    if (!call || !::dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &rule, DBUS_TYPE_INVALID)) {
        Errors::set(error, Errors::kNoMemory);
        return nullptr;
    }
    return call;
}

void sendMatchCall(DBusConnection* connection, const MessagePtr& call) {
    if (!call) return;
    ::dbus_message_set_no_reply(call.get(), TRUE);
    connection->send(call.get(), nullptr);
}

}  // namespace

void dbus_message_unref(DBusMessage* message) {
    if (message) return ::dbus_message_unref(message);
    // libdbus itself would end the process over it, unless DBUS_FATAL_WARNINGS says otherwise.
    std::fputs("arguments to dbus_message_unref() were incorrect, assertion \"message != NULL\" failed\n", stderr);
}

DBusMessage* dbus_message_new_method_call(const char* destination, const char* path, const char* interface,
                                          const char* method) {
    if (!path || !method || !::dbus_validate_path(path, nullptr) || !::dbus_validate_member(method, nullptr) ||
        (destination && !::dbus_validate_bus_name(destination, nullptr)) ||
        (interface && !::dbus_validate_interface(interface, nullptr)))
        return nullptr;
    return ::dbus_message_new_method_call(destination, path, interface, method);
}

dbus_bool_t dbus_message_iter_append_basic(DBusMessageIter* iter, int type, const void* value) {
    const char* text = nullptr;
    if (type == DBUS_TYPE_STRING || type == DBUS_TYPE_OBJECT_PATH || type == DBUS_TYPE_SIGNATURE) {
        std::memcpy(&text, value, sizeof text);
        if (!text) return FALSE;
    }
    if (type == DBUS_TYPE_STRING && !::dbus_validate_utf8(text, nullptr)) return FALSE;
    if (type == DBUS_TYPE_OBJECT_PATH && !::dbus_validate_path(text, nullptr)) return FALSE;
    if (type == DBUS_TYPE_SIGNATURE && !::dbus_signature_validate(text, nullptr)) return FALSE;
    return ::dbus_message_iter_append_basic(iter, type, value);
}

DBusConnection* dbus_bus_get_private(DBusBusType type, DBusError* error) {
    return DBusConnection::open(type, error).detach();
}

void dbus_connection_set_exit_on_disconnect(DBusConnection*, dbus_bool_t) {}

dbus_bool_t dbus_connection_read_write_dispatch(DBusConnection* connection, int timeoutMs) {
    return connection->dispatch(timeoutMs);
}

void dbus_connection_wakeup(DBusConnection* connection) {
    connection->wakeUp();
}

void dbus_connection_close(DBusConnection* connection) {
    connection->close();
}

void dbus_connection_unref(DBusConnection* connection) {
    connection->decRef();
}

dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial) {
    return connection->send(message, serial);
}

dbus_bool_t dbus_connection_get_is_connected(DBusConnection* connection) {
    return connection->connected();
}

DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection* connection, DBusMessage* message, int timeoutMs,
                                                       DBusError* error) {
    return connection->callForRequest(message, deadlineOf(timeoutMs), error).release();
}

DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection* connection, DBusMessage* message, int timeoutMs,
                                                       DBusError* error, LateAnswer late) {
    return connection->callForRequest(message, deadlineOf(timeoutMs), error, std::move(late)).release();
}

void dbus_bus_add_match(DBusConnection* connection, const char* rule, DBusError* error) {
    const MessagePtr call = matchCall("AddMatch", rule, error);
    if (!error) return sendMatchCall(connection, call);
    if (call) connection->call(call.get(), deadlineAfter(-1), error);
}

void dbus_bus_remove_match(DBusConnection* connection, const char* rule, DBusError* error) {
    const MessagePtr call = matchCall("RemoveMatch", rule, error);
    if (!error) return sendMatchCall(connection, call);
    if (!call) return;
    DBusError answer = DBUS_ERROR_INIT;
    connection->call(call.get(), deadlineAfter(-1), &answer);
    // The bus was told to remove the rule. That a thread was interrupted before the answer came makes it no failure.
    if (Interrupt::raised(Interrupt::Level::End)) return ::dbus_error_free(&answer);
    ::dbus_move_error(&answer, error);
}

dbus_bool_t dbus_connection_add_filter(DBusConnection* connection, DBusHandleMessageFunction function, void* userData,
                                       DBusFreeFunction freeUserData) {
    connection->filters().add(function, userData, freeUserData);
    return TRUE;
}

void dbus_connection_remove_filter(DBusConnection* connection, DBusHandleMessageFunction function, void* userData) {
    connection->filters().remove(function, userData);
}

dbus_bool_t dbus_connection_try_register_object_path(DBusConnection* connection, const char* path,
                                                     const DBusObjectPathVTable* vtable, void* userData,
                                                     DBusError* error) {
    if (!::dbus_validate_path(path, error)) return FALSE;
    if (connection->objects().add(path, *vtable, userData)) return TRUE;
    // The text is libdbus's and so is its memory, which users leave to the end of the process.
    ::dbus_set_error(error, DBUS_ERROR_OBJECT_PATH_IN_USE, "A handler is already registered for %s", path);
    return FALSE;
}

DBusMessage* dbus_pending_call_steal_reply(DBusPendingCall* pending) {
    return pending->stealReply();
}

}  // namespace Libraries::Platform::Posix::DBus
