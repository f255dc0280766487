#ifndef SIMULATOR_BUS_H
#define SIMULATOR_BUS_H

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "simulator/Errors.h"
#include "simulator/Loop.h"
#include "simulator/Value.h"

namespace Simulator {

/// A method call that came in. Copies share the message; whoever holds one may answer it, now or later. It is answered
/// at most once; a call that wants no answer gets none.
class Call {
public:
    explicit Call(sd_bus_message* message);

    std::string sender() const { return text(sd_bus_message_get_sender(message_.get())); }
    std::string path() const { return text(sd_bus_message_get_path(message_.get())); }
    std::string interface() const { return text(sd_bus_message_get_interface(message_.get())); }
    std::string member() const { return text(sd_bus_message_get_member(message_.get())); }
    std::string signature() const { return text(sd_bus_message_get_signature(message_.get(), 1)); }

    /// The arguments; file descriptors end the list.
    const Value::List& arguments() const { return *arguments_; }
    /// Whether the call is this member of this interface with arguments of this signature. As bluetoothd does, a method
    /// with other arguments counts as one that is not there; a call without an interface matches any.
    bool is(std::string_view wantedInterface, std::string_view wantedMember, std::string_view wantedSignature) const;

    void reply(const Value::List& results = {}) const;
    /// Answers with what `append` puts into the message; for replies too large to be built as values first.
    void replyWith(const std::function<int(sd_bus_message*)>& append) const;
    void fail(const std::string& errorName, const std::string& errorText) const;
    void fail(const Error& error) const { fail(error.name, error.text); }
    /// "Method … with signature … on interface … doesn't exist", as libdbus words it for bluetoothd.
    void failUnknown(bool isKnownObject) const;

private:
    static std::string text(const char* raw) { return raw ? raw : ""; }

    std::shared_ptr<sd_bus_message> message_;
    std::shared_ptr<const Value::List> arguments_;
};

/// The answer to a call that the simulator made.
struct Answer {
    std::string errorName;  // empty: no error
    std::string errorText;
    Value::List results;
};

/// A call of the simulator that waits for its answer; destroying it gives the answer up.
class PendingCall {
public:
    struct State;

    PendingCall();
    explicit PendingCall(std::unique_ptr<State> state);
    PendingCall(PendingCall&& other) noexcept;
    PendingCall& operator=(PendingCall&& other) noexcept;
    ~PendingCall();

    bool isWaiting() const { return state_ != nullptr; }

private:
    std::unique_ptr<State> state_;
};

/// The connection to the message bus. Used on the loop's thread only.
class Bus {
public:
    /// An empty address is the system bus (DBUS_SYSTEM_BUS_ADDRESS, if set). Null, with `error` telling why.
    static std::unique_ptr<Bus> connect(Loop& loop, const std::string& address, std::string& error);
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    /// False, with `error`, when the name has an owner already.
    bool ownName(const std::string& name, std::string& error);
    bool isOpen() const { return sd_bus_is_open(bus_) > 0; }

    std::function<void(Call)> onCall;
    /// A connection (its unique name) left the bus.
    std::function<void(const std::string&)> onClientGone;

    MessagePtr newSignal(const std::string& path, const std::string& interface, const std::string& member) const;
    MessagePtr newCall(const std::string& destination, const std::string& path, const std::string& interface,
                       const std::string& member) const;
    /// Sends a signal, or a call whose answer nobody wants. Negative errno when the message could not be built or sent.
    int send(const MessagePtr& message) const;
    /// `answered` is called once: with the answer, or with the error org.freedesktop.DBus.Error.NoReply when the time
    /// passed. Not called when the call is given up.
    PendingCall call(const MessagePtr& message, milliseconds timeout,
                     std::function<void(const Answer&)> answered) const;

    /// How many messages wait for room in the socket.
    std::uint64_t backlog() const;
    /// Waits until all messages are with the bus.
    void flush() const { sd_bus_flush(bus_); }

private:
    explicit Bus(sd_bus* bus) : bus_(bus) {}
    bool watch(std::string& error);

    static int filter(sd_bus_message* message, void* self, sd_bus_error*);
    static int nameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*);

    sd_bus* bus_;
};

}  // namespace Simulator

#endif
