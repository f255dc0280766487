#include "simulator/Bus.h"

#include <fmt/format.h>

#include <cstring>
#include <utility>

namespace Simulator {

namespace {

constexpr std::string_view kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr std::string_view kUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";

std::string reason(int negativeErrno) {
    return std::strerror(-negativeErrno);
}

}  // namespace

Call::Call(sd_bus_message* message) : message_(sd_bus_message_ref(message), &sd_bus_message_unref) {
    auto arguments = Value::readAll(message);
    arguments_ = std::make_shared<const Value::List>(arguments ? std::move(*arguments) : Value::List());
}

bool Call::is(std::string_view wantedInterface, std::string_view wantedMember, std::string_view wantedSignature) const {
    const std::string called = interface();
    return member() == wantedMember && (called.empty() || called == wantedInterface) && signature() == wantedSignature;
}

void Call::reply(const Value::List& results) const {
    replyWith([&](sd_bus_message* message) {
        int result = 0;
        for (const auto& value : results) {
            if (result >= 0) result = value.appendTo(message);
        }
        return result;
    });
}

void Call::replyWith(const std::function<int(sd_bus_message*)>& append) const {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_return(message_.get(), &raw) < 0) return;
    const MessagePtr message(raw);
    const int result = append(raw);
    if (result < 0) {
        fail("org.freedesktop.DBus.Error.Failed", "The answer cannot be sent over D-Bus: " + reason(result));
        return;
    }
    sd_bus_send(sd_bus_message_get_bus(raw), raw, nullptr);
}

void Call::fail(const std::string& errorName, const std::string& errorText) const {
    sd_bus_error error{};
    sd_bus_error_set(&error, errorName.c_str(), errorText.c_str());
    sd_bus_reply_method_error(message_.get(), &error);
    sd_bus_error_free(&error);
}

void Call::failUnknown(bool isKnownObject) const {
    fail(std::string(isKnownObject ? kUnknownMethod : kUnknownObject),
         fmt::format("Method \"{}\" with signature \"{}\" on interface \"{}\" doesn't exist\n", member(), signature(),
                     interface().empty() ? "(null)" : interface()));
}

struct PendingCall::State {
    sd_bus_slot* slot = nullptr;
    std::function<void(const Answer&)> answered;

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() { sd_bus_slot_unref(slot); }

    static int receive(sd_bus_message* reply, void* state, sd_bus_error*) {
        // The function may destroy the state, so it runs out of a copy of its own.
        const auto answered = std::move(static_cast<State*>(state)->answered);
        Answer answer;
        if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
            answer.errorName = error->name ? error->name : "";
            answer.errorText = error->message ? error->message : "";
        }
        if (auto results = Value::readAll(reply)) answer.results = std::move(*results);
        answered(answer);
        return 0;
    }
};

PendingCall::PendingCall() = default;
PendingCall::PendingCall(std::unique_ptr<State> state) : state_(std::move(state)) {}
PendingCall::PendingCall(PendingCall&& other) noexcept = default;
PendingCall& PendingCall::operator=(PendingCall&& other) noexcept = default;
PendingCall::~PendingCall() = default;

std::unique_ptr<Bus> Bus::connect(Loop& loop, const std::string& address, std::string& error) {
    sd_bus* raw = nullptr;
    int result = 0;
    if (address.empty()) {
        result = sd_bus_open_system(&raw);
    } else {
        result = sd_bus_new(&raw);
        if (result >= 0) result = sd_bus_set_address(raw, address.c_str());
        if (result >= 0) result = sd_bus_set_bus_client(raw, 1);
        if (result >= 0) result = sd_bus_start(raw);
    }
    std::unique_ptr<Bus> bus(new Bus(raw));
    if (result >= 0) result = sd_bus_attach_event(raw, loop.raw(), SD_EVENT_PRIORITY_NORMAL);
    // The loop then ends with exit code 1 when the bus goes away.
    if (result >= 0) result = sd_bus_set_exit_on_disconnect(raw, 1);
    if (result < 0) {
        error = fmt::format("cannot reach the {}: {}", address.empty() ? "system bus" : "bus at " + address,
                            reason(result));
        return nullptr;
    }
    if (!bus->watch(error)) return nullptr;
    return bus;
}

Bus::~Bus() {
    sd_bus_flush_close_unref(bus_);
}

bool Bus::watch(std::string& error) {
    int result = sd_bus_add_filter(bus_, nullptr, &Bus::filter, this);
    if (result >= 0) {
        result = sd_bus_add_match(bus_, nullptr,
                                  "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                  "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''",
                                  &Bus::nameOwnerChanged, this);
    }
    if (result < 0) error = "the bus does not answer: " + reason(result);
    return result >= 0;
}

bool Bus::ownName(const std::string& name, std::string& error) {
    const int result = sd_bus_request_name(bus_, name.c_str(), 0);
    if (result >= 0) return true;
    error = result == -EEXIST || result == -EALREADY
                ? fmt::format(
                      "the name {} has an owner on this bus already; end that program (bluetoothd?) or give "
                      "another bus with --bus",
                      name)
                : fmt::format("the bus does not let the simulator own {}: {}", name, reason(result));
    return false;
}

int Bus::filter(sd_bus_message* message, void* self, sd_bus_error*) {
    std::uint8_t type = 0;
    sd_bus_message_get_type(message, &type);
    if (type != SD_BUS_MESSAGE_METHOD_CALL) return 0;
    const char* interface = sd_bus_message_get_interface(message);
    if (interface && std::string_view(interface) == "org.freedesktop.DBus.Peer") return 0;  // the library answers these
    const auto& onCall = static_cast<Bus*>(self)->onCall;
    if (!onCall) return 0;
    onCall(Call(message));
    return 1;
}

int Bus::nameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    const char* name = nullptr;
    const auto& onClientGone = static_cast<Bus*>(self)->onClientGone;
    if (onClientGone && sd_bus_message_read_basic(message, 's', &name) > 0 && name[0] == ':') onClientGone(name);
    return 0;
}

MessagePtr Bus::newSignal(const std::string& path, const std::string& interface, const std::string& member) const {
    sd_bus_message* message = nullptr;
    sd_bus_message_new_signal(bus_, &message, path.c_str(), interface.c_str(), member.c_str());
    return MessagePtr(message);
}

MessagePtr Bus::newCall(const std::string& destination, const std::string& path, const std::string& interface,
                        const std::string& member) const {
    sd_bus_message* message = nullptr;
    sd_bus_message_new_method_call(bus_, &message, destination.c_str(), path.c_str(), interface.c_str(),
                                   member.c_str());
    return MessagePtr(message);
}

int Bus::send(const MessagePtr& message) const {
    if (!message) return -EINVAL;
    std::uint8_t type = 0;
    sd_bus_message_get_type(message.get(), &type);
    if (type == SD_BUS_MESSAGE_METHOD_CALL) sd_bus_message_set_expect_reply(message.get(), 0);
    return sd_bus_send(bus_, message.get(), nullptr);
}

PendingCall Bus::call(const MessagePtr& message, milliseconds timeout,
                      std::function<void(const Answer&)> answered) const {
    auto state = std::make_unique<PendingCall::State>();
    state->answered = std::move(answered);
    const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(timeout).count());
    if (!message || sd_bus_call_async(bus_, &state->slot, message.get(), &PendingCall::State::receive, state.get(),
                                      microseconds) < 0) {
        return {};
    }
    return PendingCall(std::move(state));
}

std::uint64_t Bus::backlog() const {
    std::uint64_t queued = 0;
    sd_bus_get_n_queued_write(bus_, &queued);
    return queued;
}

}  // namespace Simulator
