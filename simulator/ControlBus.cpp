#include <fmt/format.h>

#include <cstring>

#include "simulator/Control.h"
#include "simulator/ValueText.h"

// Control: calls that go wrong, signals and calls of the simulator's own, the log of calls.

namespace Simulator {

namespace {

std::uint32_t number(const Value& value) {
    return static_cast<std::uint32_t>(value.number());
}

/// Appends what the variants hold as arguments of their own.
int appendArguments(sd_bus_message* message, const Value& variants) {
    for (const auto& variant : variants.elements()) {
        const int result = variant.inner().appendTo(message);
        if (result < 0) return result;
    }
    return 0;
}

}  // namespace

void Control::interfere(const Call& call, Interference::Rule rule) {
    const auto& arguments = call.arguments();
    rule.path = arguments[0].text();
    rule.member = arguments[1].text();
    rule.count = number(arguments[2]);
    if (rule.count == 0) return refuse(call, "a count of 0 calls");
    simulation_.interference().add(rule);
    call.reply();
}

void Control::answerLate(const Call& call) {
    Interference::Rule rule;
    rule.kind = Interference::Kind::Late;
    rule.delay = milliseconds(call.arguments()[3].number());
    interfere(call, rule);
}

void Control::hold(const Call& call) {
    Interference::Rule rule;
    rule.kind = Interference::Kind::Hold;
    interfere(call, rule);
}

void Control::answerNever(const Call& call) {
    Interference::Rule rule;
    rule.kind = Interference::Kind::Never;
    interfere(call, rule);
}

void Control::answerError(const Call& call) {
    Interference::Rule rule;
    rule.kind = Interference::Kind::Fail;
    rule.errorName = call.arguments()[3].text();
    rule.errorText = call.arguments()[4].text();
    if (sd_bus_interface_name_is_valid(rule.errorName.c_str()) <= 0) {
        return refuse(call, fmt::format("'{}' is no name for an error", rule.errorName));
    }
    interfere(call, rule);
}

void Control::answerNormally(const Call& call) {
    simulation_.interference().clear();
    call.reply();
}

void Control::release(const Call& call) {
    call.reply({Value::uint32(simulation_.interference().release())});
}

void Control::held(const Call& call) {
    call.reply({Value::uint32(simulation_.interference().held())});
}

void Control::emitSignal(const Call& call) {
    const auto& arguments = call.arguments();
    const auto signal = world_.bus.newSignal(arguments[1].text(), arguments[2].text(), arguments[3].text());
    const std::string& destination = arguments[0].text();
    int result = signal ? 0 : -EINVAL;
    if (result >= 0 && !destination.empty()) result = sd_bus_message_set_destination(signal.get(), destination.c_str());
    if (result >= 0) result = appendArguments(signal.get(), arguments[4]);
    if (result >= 0) result = world_.bus.send(signal);
    if (result < 0) return refuse(call, fmt::format("such a signal cannot be sent: {}", std::strerror(-result)));
    call.reply();
}

void Control::callClient(const Call& call) {
    const auto& arguments = call.arguments();
    const auto message =
        world_.bus.newCall(arguments[0].text(), arguments[1].text(), arguments[2].text(), arguments[3].text());
    sendCall(call, message, arguments[5], milliseconds(arguments[4].number()));
}

void Control::callAgent(const Call& call) {
    const auto& arguments = call.arguments();
    const std::string& client = arguments[0].text();
    const auto all = world_.agents.all();
    std::optional<Agent> agent = world_.agents.agentFor(client);
    if (agent && !client.empty() && agent->owner != client) agent.reset();
    if (!agent && client.empty() && all.size() == 1) agent = all.front();
    if (!agent)
        return refuse(call, client.empty() ? "there is no default agent" : fmt::format("{} has no agent", client));
    const auto message = world_.bus.newCall(agent->owner, agent->path, "org.bluez.Agent1", arguments[1].text());
    sendCall(call, message, arguments[3], milliseconds(arguments[2].number()));
}

void Control::sendCall(const Call& call, const MessagePtr& message, const Value& arguments, milliseconds timeout) {
    int result = message ? appendArguments(message.get(), arguments) : -EINVAL;
    const Value nothing = Value::array("v", {});
    if (result >= 0 && timeout == milliseconds(0)) {
        result = world_.bus.send(message);
        if (result >= 0) return call.reply({Value::string(""), Value::string(""), nothing});
    }
    if (result < 0) return refuse(call, fmt::format("such a call cannot be sent: {}", std::strerror(-result)));
    const auto place = outgoing_.emplace(outgoing_.end());
    *place = world_.bus.call(message, timeout, [this, call, place](const Answer& answer) {
        Value::List results;
        for (const auto& value : answer.results) results.push_back(Value::variant(value));
        if (!answer.errorName.empty()) results.clear();
        call.reply({Value::string(answer.errorName), Value::string(answer.errorText), Value::array("v", results)});
        outgoing_.erase(place);
    });
    if (place->isWaiting()) return;
    outgoing_.erase(place);
    refuse(call, "such a call cannot be sent");
}

void Control::agents(const Call& call) {
    const auto defaultAgent = world_.agents.defaultAgent();
    Value::List list;
    for (const auto& agent : world_.agents.all()) {
        const bool isDefault = defaultAgent && defaultAgent->owner == agent.owner;
        list.push_back(Value::structure({Value::string(agent.owner), Value::string(agent.path),
                                         Value::string(agent.capability), Value::boolean(isDefault)}));
    }
    call.reply({Value::array("(sssb)", std::move(list))});
}

void Control::calls(const Call& call) {
    call.reply({simulation_.calls().list(call.arguments()[0].text(), call.arguments()[1].text())});
}

void Control::callCount(const Call& call) {
    call.reply({Value::uint64(simulation_.calls().count(call.arguments()[0].text(), call.arguments()[1].text()))});
}

void Control::waitForCalls(const Call& call) {
    const auto& arguments = call.arguments();
    simulation_.calls().answerAt(arguments[2].number(), arguments[0].text(), arguments[1].text(),
                                 milliseconds(arguments[3].number()), call);
}

void Control::forgetCalls(const Call& call) {
    simulation_.calls().clear();
    call.reply();
}

void Control::quit(const Call& call) {
    call.reply();
    world_.bus.flush();
    world_.loop.end(0);
}

}  // namespace Simulator
