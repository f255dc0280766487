#pragma once

#include <systemd/sd-bus.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "simulator/Bus.h"
#include "simulator/Control.h"
#include "simulator/Value.h"
#include "simulator/World.h"

namespace SimulatorTests {

using Simulator::Value;

/// A signal as it came.
struct Signal {
    std::string path;
    std::string member;
    Value::List arguments;
    /// "InterfacesAdded(...)" with the arguments as text.
    std::string text() const;
};

/// A call of the client's agent, not answered yet or no more.
struct AgentCall {
    std::string member;
    Value::List arguments;
    Simulator::MessagePtr message;
};

/// What became of a call: no answer yet, an error's name, or results.
struct Outcome {
    bool isAnswered = false;
    std::string errorName;
    std::string errorText;
    Value::List results;
    bool isOk() const { return isAnswered && errorName.empty(); }
};

/// A program on the bus that talks to BlueZ: one connection, used on the test's thread. What comes in is taken in while
/// the client waits for something.
class Client {
public:
    Client();
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    std::string name() const;

    /// Calls and waits for the answer.
    Outcome call(const std::string& path, const std::string& interface, const std::string& member,
                 const Value::List& arguments = {});
    /// Calls; the outcome comes while the client waits for something.
    std::shared_ptr<const Outcome> start(const std::string& path, const std::string& interface,
                                         const std::string& member, const Value::List& arguments = {});
    /// Takes in what comes until the condition holds. False when it does not within the limit.
    bool waitFor(const std::function<bool()>& condition);
    /// Waits until all that the simulator sent so far has come in.
    void catchUp();

    /// Calls the control interface; a failure fails the test.
    Value::List control(const std::string& member, const Value::List& arguments = {});

    /// The property's value; none when it cannot be read.
    std::optional<Value> property(const std::string& path, const std::string& interface, const std::string& name);

    /// Registers an agent at /agent, whose calls are kept in agentCalls.
    void registerAgent();
    std::deque<AgentCall> agentCalls;
    /// Answers DisplayPinCode at once.
    bool isAgentObliging = true;

    std::vector<Signal> signals;
    /// The texts of the signals of this object, or of InterfacesAdded and InterfacesRemoved about it.
    std::vector<std::string> told(const std::string& path) const;

    sd_bus* raw() const { return bus_; }

private:
    static int receive(sd_bus_message* message, void* self, sd_bus_error*);
    Simulator::MessagePtr newCall(const std::string& path, const std::string& interface, const std::string& member,
                                  const Value::List& arguments) const;

    sd_bus* bus_ = nullptr;
};

// Words the tests share.

inline constexpr const char* kHci0 = "/org/bluez/hci0";
inline constexpr const char* kHci1 = "/org/bluez/hci1";
inline constexpr const char* kRoot = "/org/bluez";

inline Value text(const std::string& text) {
    return Value::string(text);
}
inline Value path(const std::string& path) {
    return Value::objectPath(path);
}
inline Value noProperties() {
    return Simulator::dictionary({});
}

}  // namespace SimulatorTests
