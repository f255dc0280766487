#include "tests/unit/simulator/Client.h"

#include <gtest/gtest.h>

#include <chrono>

#include "simulator/ValueText.h"
#include "tests/unit/support/PrivateBus.h"

namespace SimulatorTests {

namespace {

// Generous: sanitizers and a machine with much else to do are slow.
constexpr std::chrono::seconds kPatience{60};
constexpr std::uint64_t kCallTimeout = std::chrono::microseconds(kPatience).count();

Outcome outcomeOf(sd_bus_message* reply) {
    Outcome outcome;
    outcome.isAnswered = true;
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        outcome.errorName = error->name;
        outcome.errorText = error->message ? error->message : "";
    } else if (auto results = Value::readAll(reply)) {
        outcome.results = std::move(*results);
    }
    return outcome;
}

}  // namespace

std::string Signal::text() const {
    return member + "(" + Simulator::toText(arguments) + ")";
}

Client::Client() {
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, UnitTest::PrivateBus::address().c_str());
    sd_bus_set_bus_client(bus_, 1);
    if (sd_bus_start(bus_) < 0) ADD_FAILURE() << "no connection to the bus";
    sd_bus_add_filter(bus_, nullptr, &Client::receive, this);
    sd_bus_add_match(bus_, nullptr, "type='signal',sender='org.bluez'", nullptr, nullptr);
}

Client::~Client() {
    agentCalls.clear();
    sd_bus_flush_close_unref(bus_);
}

std::string Client::name() const {
    const char* name = nullptr;
    sd_bus_get_unique_name(bus_, &name);
    return name;
}

int Client::receive(sd_bus_message* message, void* self, sd_bus_error*) {
    auto& client = *static_cast<Client*>(self);
    std::uint8_t type = 0;
    sd_bus_message_get_type(message, &type);
    const char* interface = sd_bus_message_get_interface(message);
    const std::string member = sd_bus_message_get_member(message) ? sd_bus_message_get_member(message) : "";
    const char* sender = sd_bus_message_get_sender(message);
    // What the bus itself tells (NameAcquired) is no affair of the tests.
    if (!sender || std::string(sender) == "org.freedesktop.DBus") return 0;
    if (type == SD_BUS_MESSAGE_SIGNAL) {
        auto arguments = Value::readAll(message);
        client.signals.push_back({sd_bus_message_get_path(message), member, arguments.value_or(Value::List{})});
        return 0;
    }
    if (type != SD_BUS_MESSAGE_METHOD_CALL || !interface || std::string(interface) != "org.bluez.Agent1") return 0;
    auto arguments = Value::readAll(message);
    client.agentCalls.push_back(
        {member, arguments.value_or(Value::List{}), Simulator::MessagePtr(sd_bus_message_ref(message))});
    if (client.isAgentObliging && member == "DisplayPinCode") sd_bus_reply_method_return(message, "");
    return 1;
}

Simulator::MessagePtr Client::newCall(const std::string& path, const std::string& interface, const std::string& member,
                                      const Value::List& arguments) const {
    sd_bus_message* raw = nullptr;
    sd_bus_message_new_method_call(bus_, &raw, "org.bluez", path.c_str(), interface.c_str(), member.c_str());
    Simulator::MessagePtr message(raw);
    for (const auto& argument : arguments) {
        if (argument.appendTo(raw) < 0) ADD_FAILURE() << "an argument of " << member << " cannot be sent";
    }
    return message;
}

Outcome Client::call(const std::string& path, const std::string& interface, const std::string& member,
                     const Value::List& arguments) {
    const auto outcome = start(path, interface, member, arguments);
    if (!waitFor([&] { return outcome->isAnswered; })) ADD_FAILURE() << member << " is not answered";
    return *outcome;
}

std::shared_ptr<const Outcome> Client::start(const std::string& path, const std::string& interface,
                                             const std::string& member, const Value::List& arguments) {
    struct Waiting {
        std::shared_ptr<Outcome> outcome = std::make_shared<Outcome>();
    };
    auto* waiting = new Waiting;
    const std::shared_ptr<const Outcome> outcome = waiting->outcome;
    const auto message = newCall(path, interface, member, arguments);
    sd_bus_slot* slot = nullptr;
    sd_bus_call_async(
        bus_, &slot, message.get(),
        [](sd_bus_message* reply, void* data, sd_bus_error*) {
            *static_cast<Waiting*>(data)->outcome = outcomeOf(reply);
            return 0;
        },
        waiting, kCallTimeout);
    sd_bus_slot_set_destroy_callback(slot, [](void* data) { delete static_cast<Waiting*>(data); });
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    return outcome;
}

bool Client::waitFor(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        const int result = sd_bus_process(bus_, nullptr);
        if (result < 0 || std::chrono::steady_clock::now() >= end) return condition();
        constexpr std::uint64_t kLook = 100'000;  // µs until the limit is looked at again
        if (result == 0) sd_bus_wait(bus_, kLook);
    }
    return true;
}

void Client::catchUp() {
    control("Held");
}

Value::List Client::control(const std::string& member, const Value::List& arguments) {
    const Outcome outcome = call(Simulator::kControlPath, Simulator::kControl1, member, arguments);
    EXPECT_EQ(outcome.errorName, "") << member << ": " << outcome.errorText;
    return outcome.results;
}

std::optional<Value> Client::property(const std::string& path, const std::string& interface, const std::string& name) {
    const auto outcome = call(path, Simulator::kProperties, "Get", {text(interface), text(name)});
    if (!outcome.isOk()) return std::nullopt;
    return outcome.results.at(0).inner();
}

void Client::registerAgent() {
    const auto outcome = call(kRoot, Simulator::kAgentManager1, "RegisterAgent",
                              {SimulatorTests::path("/agent"), text("NoInputNoOutput")});
    EXPECT_TRUE(outcome.isOk()) << outcome.errorName;
}

std::vector<std::string> Client::told(const std::string& object) const {
    std::vector<std::string> told;
    for (const auto& signal : signals) {
        const bool isAbout = signal.path == "/" && !signal.arguments.empty() && signal.arguments[0].text() == object;
        if (signal.path == object || isAbout) told.push_back(signal.text());
    }
    return told;
}

}  // namespace SimulatorTests
