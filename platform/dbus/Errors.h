#pragma once

#include <dbus/dbus.h>

/// The errors that this library sets itself, named and worded as libdbus does where libdbus has them. They are
/// constants: users of the library drop an error that was set without freeing it.
namespace Libraries::Platform::Posix::DBus::Errors {

struct Error {
    const char* name;
    const char* message;
};

constexpr Error kNoReply{
    DBUS_ERROR_NO_REPLY,
    "Did not receive a reply. Possible causes include: the remote application did not send a reply, the message bus "
    "security policy blocked the reply, the reply timeout expired, or the network connection was broken."};
constexpr Error kInterrupted{DBUS_ERROR_NO_REPLY, "The wait for the reply was interrupted"};
constexpr Error kClosed{DBUS_ERROR_DISCONNECTED, "Connection is closed"};
constexpr Error kLost{DBUS_ERROR_DISCONNECTED, "Connection was disconnected before a reply was received"};
constexpr Error kTooManyCalls{DBUS_ERROR_LIMITS_EXCEEDED, "Too many calls are waiting for the bus"};
constexpr Error kNoMemory{DBUS_ERROR_NO_MEMORY, "Out of memory"};

/// No effect when the user gave none.
inline void set(DBusError* error, const Error& what) {
    ::dbus_set_error_const(error, what.name, what.message);
}

}  // namespace Libraries::Platform::Posix::DBus::Errors
