#pragma once

#include <cstdint>
#include <functional>

#include "platform/dbus/DBus.h"

/// Six conveniences on top of the bus. Failures are results, never exceptions, and nothing is logged. Any thread.
namespace Libraries::Platform::Posix::DBus::Util {

/// Reads one property of basic type (Properties.Get) out of its variant into `value`. A string in `value` is valid
/// until the calling thread's next getPropertyBasic; copy it at once. `timeout` in milliseconds; 4294967295 is the
/// library's default. False, and `value` untouched, when it cannot be read or is of a container type or a descriptor.
/// `type`, when given, receives the D-Bus type code of the value.
bool getPropertyBasic(const Ref<String>& service, const Ref<String>& path, DBusConnection* connection,
                      std::uint64_t timeout, const Ref<String>& interface, const Ref<String>& property,
                      DBusBasicValue* value, int* type = nullptr);

/// Fetches one property of any type and hands the callable an iterator that stands on the reply's variant.
bool getProperty(const Ref<String>& service, const Ref<String>& path, DBusConnection* connection, std::uint64_t timeout,
                 const Ref<String>& interface, const Ref<String>& property,
                 const std::function<void(DBusMessageIter*)>& handler);

/// The string or object path under the iterator; null for any other type.
Ref<String> getString(DBusMessageIter* iter);

/// Calls the callable for each element, with an iterator on it, until it returns false. False when the iterator does
/// not stand on an array.
bool iterArray(DBusMessageIter* iter, const std::function<bool(DBusMessageIter*)>& element);

/// Calls the callable for each entry, with an iterator on its key, until it returns false. False when the iterator does
/// not stand on an array of dictionary entries.
bool iterDict(DBusMessageIter* iter, const std::function<bool(DBusMessageIter*)>& entry);

/// Sends a call and has `completion` run once on the dispatch thread when the reply is there or `timeout` milliseconds
/// have passed (4294967295 and above: no limit); then dbus_pending_call_steal_reply gives null. Takes over the message
/// in every case. False when it was not sent; then neither function is called. `freeUserData` runs once after the
/// completion, or alone, inside dbus_connection_close, when the connection ends before.
bool callMethodAsync(DBusConnection* connection, std::uint64_t timeout, DBusMessage* message,
                     DBusPendingCallNotifyFunction completion, void* userData, DBusFreeFunction freeUserData = nullptr);

}  // namespace Libraries::Platform::Posix::DBus::Util
