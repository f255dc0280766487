#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <dbus/dbus.h>

#include "platform/host/String.h"

/// D-Bus as the host gives it to its services: libdbus's names and arguments, safe from any thread.
///
/// libdbus is called under one lock per connection and never waits. Whoever sends writes what the socket takes; one
/// I/O thread per connection waits for the socket, writes the rest, reads, completes calls with deadlines of its own on
/// the monotonic clock, and hands everything else, in order, to the thread that calls
/// dbus_connection_read_write_dispatch (the dispatch thread). Messages are libdbus's own and may be built and read on
/// any thread, one thread at a time.
namespace Libraries::Platform::Posix::DBus {

class DBusConnection;
class DBusPendingCall;

using DBusHandleMessageFunction = DBusHandlerResult (*)(DBusConnection*, DBusMessage*, void*);
using DBusObjectPathUnregisterFunction = void (*)(DBusConnection*, void*);
using DBusPendingCallNotifyFunction = void (*)(DBusPendingCall*, void*);
using DBusFreeFunction = void (*)(void*);

struct DBusObjectPathVTable {
    DBusObjectPathUnregisterFunction unregister_function;
    DBusHandleMessageFunction message_function;
};

// Messages, iterators and errors have no connection: libdbus's own functions serve.
using ::dbus_error_init;
using ::dbus_error_is_set;
using ::dbus_message_get_error_name;
using ::dbus_message_get_interface;
using ::dbus_message_get_member;
using ::dbus_message_get_path;
using ::dbus_message_get_type;
using ::dbus_message_iter_get_arg_type;
using ::dbus_message_iter_get_basic;
using ::dbus_message_iter_init;
using ::dbus_message_iter_init_append;
using ::dbus_message_iter_next;
using ::dbus_message_iter_recurse;
using ::dbus_message_new_method_return;
using ::dbus_threads_init_default;

// libdbus ends the process over a malformed argument, these do not:

/// A null message is refused with a warning on standard error and nothing else.
void dbus_message_unref(DBusMessage* message);
/// Null when the path, a name or the method is malformed (the destination and the interface may be left out), or when
/// out of memory.
DBusMessage* dbus_message_new_method_call(const char* destination, const char* path, const char* interface,
                                          const char* method);
/// False when the text is no UTF-8, or no object path or signature where it has to be one, or when out of memory.
dbus_bool_t dbus_message_iter_append_basic(DBusMessageIter* iter, int type, const void* value);

/// Opens a private connection to the bus, at the address that libdbus takes from the environment or its defaults, and
/// registers on it (Hello). Null on failure, with libdbus's error set. The caller owns one reference, and closes the
/// connection before it gives that back. The calling thread's interrupt (End) ends the wait.
DBusConnection* dbus_bus_get_private(DBusBusType type, DBusError* error);
/// Whether the process ends with the connection; the host never lets it, whatever is passed.
void dbus_connection_set_exit_on_disconnect(DBusConnection* connection, dbus_bool_t exits);

/// Waits at most `timeoutMs` milliseconds for something to dispatch (-1: no limit) and dispatches one message to the
/// filters, in the order they were added, then to the object paths; an unhandled method call gets the standard error
/// reply. A completion of an asynchronous call, or the handler of a late answer, counts as one message. A message whose
/// handler answers NEED_MEMORY is delivered again after a pause. False when the connection is lost or closed and
/// nothing is left to dispatch; of a lost one what came before the loss is dispatched still. One thread only, the same
/// for the life of the connection; not from inside a handler.
dbus_bool_t dbus_connection_read_write_dispatch(DBusConnection* connection, int timeoutMs);
/// Makes a dbus_connection_read_write_dispatch that waits return at once (the next one, when none waits). Any thread.
void dbus_connection_wakeup(DBusConnection* connection);

/// Closes the connection, ends its I/O thread, answers every blocking caller (Disconnected). Asynchronous calls that
/// are still outstanding are dropped: their user data is freed, their function is not called. Sends what was queued
/// first, which takes 100 ms at most. Any thread; a second call waits for the first and does nothing else. The loss of
/// the bus answers every blocking caller as well; asynchronous calls are dropped when the lost connection is closed.
void dbus_connection_close(DBusConnection* connection);
void dbus_connection_unref(DBusConnection* connection);

/// Sends a message, without waiting: what the bus does not take at once is queued. The caller keeps its reference.
/// `serial`, when given, receives the message's serial. False when out of memory or the connection is lost. Any thread.
dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial);
/// False once the connection is lost or closed: from then on nothing can be sent. Any thread.
dbus_bool_t dbus_connection_get_is_connected(DBusConnection* connection);

/// Sends a call and waits for its own answer and nothing else, at most `timeoutMs` milliseconds (-1: the default of
/// 25 s; DBUS_TIMEOUT_INFINITE: no limit). Null with the error (which may be null) set on an error reply, a time-out
/// (NoReply), a lost connection (Disconnected), an interrupt of level End (NoReply with a text of its own), or when the
/// request has no bus call slot left (LimitsExceeded, see RequestContext). Only in the last case is the call not sent:
/// a thread that is interrupted already sends it and does not wait. The caller owns the reply. Any thread, the dispatch
/// thread included.
DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection* connection, DBusMessage* message, int timeoutMs,
                                                       DBusError* error);
/// What to do with an answer whose caller left: called at most once, on the dispatch thread, with the reply (an error
/// reply included), which it may not keep; not called when none comes within the call's time-out or the connection
/// ends. Destroyed on the dispatch thread or inside dbus_connection_close, when it was taken over.
using LateAnswer = std::function<void(DBusMessage* reply)>;
/// As above, but an interrupt of level HangUp ends the wait as well; the answer, when it comes, goes to `late`.
DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection* connection, DBusMessage* message, int timeoutMs,
                                                       DBusError* error, LateAnswer late);

/// Adds (removes) a match rule; waits for the bus's answer when `error` is given (at most 25 s), which takes none of
/// the request's bus call slots. The bus counts equal rules. An interrupt of level End ends the wait: adding has failed
/// then, removing has not, for the bus is told in any case. Any thread.
void dbus_bus_add_match(DBusConnection* connection, const char* rule, DBusError* error);
void dbus_bus_remove_match(DBusConnection* connection, const char* rule, DBusError* error);

/// Filters see messages in the order the filters were added, one that is added by a filter from the next message on.
/// `freeUserData`, when given, runs once when the filter is gone, on the thread that removed it or gave back the
/// connection's last reference. Never false. Any thread.
dbus_bool_t dbus_connection_add_filter(DBusConnection* connection, DBusHandleMessageFunction function, void* userData,
                                       DBusFreeFunction freeUserData);
/// Removes the last added filter with this function and data; no effect when there is none. When it returns, the filter
/// is not running (unless the caller is inside it) and is not called again. Any thread; the caller holds no lock that
/// the filter takes.
void dbus_connection_remove_filter(DBusConnection* connection, DBusHandleMessageFunction function, void* userData);

/// Has messages on this very path handed to the vtable's function; its function for unregistering, which may be null,
/// runs when the connection is gone. False with the error set when the path is taken (ObjectPathInUse) or malformed
/// (InvalidArgs). Any thread.
dbus_bool_t dbus_connection_try_register_object_path(DBusConnection* connection, const char* path,
                                                     const DBusObjectPathVTable* vtable, void* userData,
                                                     DBusError* error);

/// The reply, once: the caller owns it. Null when none came (time-out, lost connection).
DBusMessage* dbus_pending_call_steal_reply(DBusPendingCall* pending);

/// Owns a message reference.
struct MessageUnref {
    void operator()(DBusMessage* message) const noexcept { ::dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, MessageUnref>;

}  // namespace Libraries::Platform::Posix::DBus
