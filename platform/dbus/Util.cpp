#include "platform/dbus/Util.h"

#include <string>

#include "platform/dbus/Connection.h"

namespace Libraries::Platform::Posix::DBus::Util {

namespace {

/// The library's default in property reads, no limit in asynchronous calls; both so of anything above.
constexpr std::uint64_t kAllBits = 0xFFFFFFFFu;

bool appendText(DBusMessageIter* arguments, const Ref<String>& text) {
    const char* const bytes = text ? text->cstr() : nullptr;
    return DBus::dbus_message_iter_append_basic(arguments, DBUS_TYPE_STRING, static_cast<const void*>(&bytes));
}

const char* bytesOf(const Ref<String>& text) {
    return text ? text->cstr() : nullptr;
}

/// The reply to Properties.Get if it holds a variant, and `variant` standing on that; else null.
MessagePtr readProperty(const Ref<String>& service, const Ref<String>& path, DBusConnection* connection,
                        std::uint64_t timeout, const Ref<String>& interface, const Ref<String>& property,
                        DBusMessageIter* variant) {
    const MessagePtr call(
        DBus::dbus_message_new_method_call(bytesOf(service), bytesOf(path), DBUS_INTERFACE_PROPERTIES, "Get"));
    if (!call) return nullptr;
    DBusMessageIter arguments;
    ::dbus_message_iter_init_append(call.get(), &arguments);
    if (!appendText(&arguments, interface) || !appendText(&arguments, property)) return nullptr;

    const auto deadline = deadlineAfter(timeout >= kAllBits ? -1 : static_cast<std::int64_t>(timeout));
    MessagePtr reply = connection->callForRequest(call.get(), deadline, nullptr);
    if (!reply || !::dbus_message_iter_init(reply.get(), variant)) return nullptr;
    if (::dbus_message_iter_get_arg_type(variant) != DBUS_TYPE_VARIANT) return nullptr;
    return reply;
}

bool iterate(DBusMessageIter* array, bool ofEntries, const std::function<bool(DBusMessageIter*)>& visit) {
    if (::dbus_message_iter_get_arg_type(array) != DBUS_TYPE_ARRAY) return false;
    if (ofEntries && ::dbus_message_iter_get_element_type(array) != DBUS_TYPE_DICT_ENTRY) return false;
    DBusMessageIter element;
    ::dbus_message_iter_recurse(array, &element);
    for (; ::dbus_message_iter_get_arg_type(&element) != DBUS_TYPE_INVALID; ::dbus_message_iter_next(&element)) {
        DBusMessageIter visited = element;  // the callable moves its iterator as it likes
        if (ofEntries) ::dbus_message_iter_recurse(&element, &visited);
        if (!visit(&visited)) break;
    }
    return true;
}

}  // namespace

bool getPropertyBasic(const Ref<String>& service, const Ref<String>& path, DBusConnection* connection,
                      std::uint64_t timeout, const Ref<String>& interface, const Ref<String>& property,
                      DBusBasicValue* value, int* type) {
    DBusMessageIter variant;
    MessagePtr reply = readProperty(service, path, connection, timeout, interface, property, &variant);
    if (!reply) return false;
    DBusMessageIter held;
    ::dbus_message_iter_recurse(&variant, &held);
    const int heldType = ::dbus_message_iter_get_arg_type(&held);
    // A descriptor would be duplicated for a caller that does not know that it has to close it.
    if (!::dbus_type_is_basic(heldType) || heldType == DBUS_TYPE_UNIX_FD) return false;
    ::dbus_message_iter_get_basic(&held, value);
    if (type) *type = heldType;
    // A text in the value is part of the reply.
    thread_local MessagePtr last;
    last = std::move(reply);
    return true;
}

bool getProperty(const Ref<String>& service, const Ref<String>& path, DBusConnection* connection, std::uint64_t timeout,
                 const Ref<String>& interface, const Ref<String>& property,
                 const std::function<void(DBusMessageIter*)>& handler) {
    DBusMessageIter variant;
    const MessagePtr reply = readProperty(service, path, connection, timeout, interface, property, &variant);
    if (!reply) return false;
    handler(&variant);
    return true;
}

Ref<String> getString(DBusMessageIter* iter) {
    const int type = ::dbus_message_iter_get_arg_type(iter);
    if (type != DBUS_TYPE_STRING && type != DBUS_TYPE_OBJECT_PATH) return nullptr;
    const char* text = nullptr;
    ::dbus_message_iter_get_basic(iter, static_cast<void*>(&text));
    return String::create(std::string_view(text));
}

bool iterArray(DBusMessageIter* iter, const std::function<bool(DBusMessageIter*)>& element) {
    return iterate(iter, false, element);
}

bool iterDict(DBusMessageIter* iter, const std::function<bool(DBusMessageIter*)>& entry) {
    return iterate(iter, true, entry);
}

bool callMethodAsync(DBusConnection* connection, std::uint64_t timeout, DBusMessage* message,
                     DBusPendingCallNotifyFunction completion, void* userData, DBusFreeFunction freeUserData) {
    const MessagePtr owned(message);
    if (!owned) return false;
    const auto deadline =
        timeout >= kAllBits ? DBusPendingCall::kNoDeadline : deadlineAfter(static_cast<std::int64_t>(timeout));
    return connection->callAsync(
        message, Ref<DBusPendingCall>(new DBusPendingCall(deadline, completion, userData, freeUserData)));
}

}  // namespace Libraries::Platform::Posix::DBus::Util
