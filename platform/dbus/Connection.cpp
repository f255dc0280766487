#include "platform/dbus/Connection.h"

#include <string>

#include "platform/dbus/Errors.h"

namespace Libraries::Platform::Posix::DBus {

namespace {

/// libdbus's, for a time-out of -1.
constexpr std::chrono::seconds kDefaultTimeout{25};

bool isCallOf(DBusMessage* message, const char* interface) {
    return ::dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
           ::dbus_message_has_interface(message, interface);
}

MessagePtr returnOf(DBusMessage* call, const std::string& text) {
    MessagePtr reply(::dbus_message_new_method_return(call));
    const char* const bytes = text.c_str();
    if (reply && !::dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &bytes, DBUS_TYPE_INVALID)) reply.reset();
    return reply;
}

MessagePtr errorOf(DBusMessage* call, const char* name, const std::string& text) {
    return MessagePtr(::dbus_message_new_error(call, name, text.c_str()));
}

/// The part of a text that libdbus prints with %s.
std::string printed(const char* text) {
    return text ? text : "(null)";
}

}  // namespace

DBusPendingCall::Clock::time_point deadlineAfter(std::int64_t milliseconds) {
    const auto now = DBusPendingCall::Clock::now();
    return milliseconds < 0 ? now + kDefaultTimeout : now + std::chrono::milliseconds(milliseconds);
}

Ref<DBusConnection> DBusConnection::open(DBusBusType type, DBusError* error) {
    auto io = BusIo::open(type, error);
    return Ref<DBusConnection>(io ? new DBusConnection(std::move(io)) : nullptr);
}

DBusConnection::~DBusConnection() {
    close();
    objects_.clear(this);
}

void DBusConnection::close() {
    std::call_once(closed_, [this] {
        io_->close();
        for (DispatchQueue::Item& item : io_->queue().drop()) {
            if (!item.call) continue;
            item.call->drop();
            item.call->finish();
        }
    });
}

MessagePtr DBusConnection::call(DBusMessage* message, Clock::time_point deadline, DBusError* error, LateAnswer late,
                                BusIo::Slot slot) {
    const std::shared_ptr<BusIo> io = io_;  // the connection may be closed and destroyed while this thread waits
    const Ref<DBusPendingCall> call(new DBusPendingCall(deadline));
    dbus_uint32_t serial = 0;
    if (!io->sendCall(message, call, BusIo::ReplyTo::WaitingThread, &serial)) {
        Errors::set(error, io->connected() ? Errors::kNoMemory : Errors::kClosed);
        return nullptr;
    }
    const auto ended = call->wait(late ? Interrupt::Level::HangUp : Interrupt::Level::End);
    if (ended != DBusPendingCall::Ended::Completed) {
        const bool interrupted = ended == DBusPendingCall::Ended::Interrupted;
        if (io->giveUp(serial, interrupted ? std::move(late) : nullptr, std::move(slot))) {
            Errors::set(error, interrupted ? Errors::kInterrupted : Errors::kNoReply);
            return nullptr;
        }
        call->waitForCertain();
    }
    MessagePtr reply(call->stealReply());
    if (!reply) {
        Errors::set(error, Errors::kLost);
    } else if (::dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        ::dbus_set_error_from_message(error, reply.get());
        reply.reset();
    }
    return reply;
}

MessagePtr DBusConnection::callForRequest(DBusMessage* message, Clock::time_point deadline, DBusError* error,
                                          LateAnswer late) {
    RequestContext::BusCall slot;
    if (!slot.granted()) {
        Errors::set(error, Errors::kTooManyCalls);
        return nullptr;
    }
    const std::shared_ptr<BusIo> io = io_;  // see call()
    MessagePtr reply = call(message, deadline, error, std::move(late), std::move(slot));
    RequestContext* const request = RequestContext::current();
    if (request && !reply && !io->connected()) request->setLost();
    return reply;
}

bool DBusConnection::callAsync(DBusMessage* message, const Ref<DBusPendingCall>& call) {
    dbus_uint32_t serial = 0;
    return io_->sendCall(message, call, BusIo::ReplyTo::DispatchThread, &serial);
}

bool DBusConnection::dispatch(int timeoutMs) {
    const Ref<DBusConnection> self(this);  // the handlers may give theirs back
    DispatchQueue& queue = io_->queue();
    if (DispatchQueue::Item item; queue.take(item, timeoutMs)) {
        if (item.call) {
            item.call->finish();
        } else if (dispatchMessage(item.message.get()) == DBUS_HANDLER_RESULT_NEED_MEMORY) {
            queue.putBack(std::move(item));
        }
    }
    return !queue.finished();
}

DBusHandlerResult DBusConnection::dispatchMessage(DBusMessage* message) {
    if (isCallOf(message, DBUS_INTERFACE_PEER)) return answerPeer(message);
    DBusHandlerResult result = filters_.run(this, message);
    if (result != DBUS_HANDLER_RESULT_NOT_YET_HANDLED) return result;
    result = objects_.run(this, message);
    if (result != DBUS_HANDLER_RESULT_NOT_YET_HANDLED) return result;
    if (::dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) return result;
    return answerStandard(message);
}

DBusHandlerResult DBusConnection::answerPeer(DBusMessage* call) {
    if (::dbus_message_has_member(call, "Ping"))
        return answer(call, MessagePtr(::dbus_message_new_method_return(call)));
    if (::dbus_message_has_member(call, "GetMachineId")) {
        DBusError error = DBUS_ERROR_INIT;
        char* const id = ::dbus_try_get_local_machine_id(&error);
        MessagePtr reply = id ? returnOf(call, id) : errorOf(call, error.name, printed(error.message));
        ::dbus_free(id);
        ::dbus_error_free(&error);
        return answer(call, std::move(reply));
    }
    return answer(
        call, errorOf(call, DBUS_ERROR_UNKNOWN_METHOD, "Unknown method invoked on " DBUS_INTERFACE_PEER " interface"));
}

DBusHandlerResult DBusConnection::answerStandard(DBusMessage* call) {
    if (::dbus_message_is_method_call(call, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"))
        return answer(call, returnOf(call, objects_.introspect(::dbus_message_get_path(call))));
    return answer(call, errorOf(call, DBUS_ERROR_UNKNOWN_METHOD,
                                "Method \"" + printed(::dbus_message_get_member(call)) + "\" with signature \"" +
                                    printed(::dbus_message_get_signature(call)) + "\" on interface \"" +
                                    printed(::dbus_message_get_interface(call)) + "\" doesn't exist\n"));
}

DBusHandlerResult DBusConnection::answer(DBusMessage* call, MessagePtr reply) {
    if (!reply) return DBUS_HANDLER_RESULT_NEED_MEMORY;
    if (!::dbus_message_get_no_reply(call)) io_->send(reply.get(), nullptr);
    return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace Libraries::Platform::Posix::DBus
