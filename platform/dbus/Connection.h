#pragma once

#include <memory>
#include <mutex>

#include "platform/dbus/BusIo.h"
#include "platform/dbus/Filters.h"
#include "platform/dbus/ObjectPaths.h"

namespace Libraries::Platform::Posix::DBus {

/// A connection to the bus. Three kinds of threads meet in it:
///
/// - The I/O thread (BusIo) reads. It completes calls that a thread waits for by itself and queues everything else:
///   messages, and calls whose reply the dispatch thread is to use.
/// - The dispatch thread is the one that calls dispatch(). It takes from the queue, and runs all code of the users:
///   filters, object handlers, completions, handlers of late answers. What it waits for holds up nobody but itself.
/// - Any thread sends, calls, and adds and removes filters. A thread that calls waits for its own reply only.
///
/// The end, by close() or by the loss of the bus: first nothing can be sent any more, then every waiting thread is told
/// at once, then what was queued is dispatched (lost) or dropped (closed). Completions of calls that have no reply by
/// then do not run; their user data is freed by close(), also of a lost connection: nobody is told of the loss by way
/// of a call before the loop's end tells whoever dispatches.
class DBusConnection final : public RefCount {
public:
    using Clock = DBusPendingCall::Clock;

    /// See dbus_bus_get_private.
    static Ref<DBusConnection> open(DBusBusType type, DBusError* error);

    bool connected() const noexcept { return io_->connected(); }
    bool send(DBusMessage* message, dbus_uint32_t* serial) { return io_->send(message, serial); }

    /// Sends a call and waits for its reply until the deadline, or until the calling thread is interrupted: at HangUp
    /// when there is a handler for the late answer, else at End. Null with the error set in every other case than that
    /// of a reply that is no error. The call is sent in any case while the connection lasts.
    MessagePtr call(DBusMessage* message, Clock::time_point deadline, DBusError* error, LateAnswer late = nullptr) {
        return call(message, deadline, error, std::move(late), {});
    }
    /// As call(), in a bus call slot of the thread's request; not sent when there is none left.
    MessagePtr callForRequest(DBusMessage* message, Clock::time_point deadline, DBusError* error,
                              LateAnswer late = nullptr);
    /// Sends a call whose completion runs on the dispatch thread. False when it was not sent.
    bool callAsync(DBusMessage* message, const Ref<DBusPendingCall>& call);

    /// See dbus_connection_read_write_dispatch, dbus_connection_wakeup, dbus_connection_close.
    bool dispatch(int timeoutMs);
    void wakeUp() { io_->queue().wakeUp(); }
    void close();

    Filters& filters() noexcept { return filters_; }
    ObjectPaths& objects() noexcept { return objects_; }

private:
    explicit DBusConnection(std::shared_ptr<BusIo> io) : io_(std::move(io)) {}
    ~DBusConnection() override;

    MessagePtr call(DBusMessage* message, Clock::time_point deadline, DBusError* error, LateAnswer late,
                    BusIo::Slot slot);
    DBusHandlerResult dispatchMessage(DBusMessage* message);
    DBusHandlerResult answerStandard(DBusMessage* call);
    DBusHandlerResult answerPeer(DBusMessage* call);
    DBusHandlerResult answer(DBusMessage* call, MessagePtr reply);

    const std::shared_ptr<BusIo> io_;
    std::once_flag closed_;
    Filters filters_;
    ObjectPaths objects_;
};

/// The deadline of a call that may take so long from now; negative: libdbus's default of 25 s.
DBusPendingCall::Clock::time_point deadlineAfter(std::int64_t milliseconds);

}  // namespace Libraries::Platform::Posix::DBus
