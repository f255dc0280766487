#include "simulator/Agents.h"

#include <algorithm>

namespace Simulator {

namespace {

bool isCapability(const std::string& capability) {
    constexpr std::string_view kKnown[] = {
        "", "DisplayOnly", "DisplayYesNo", "KeyboardOnly", "NoInputNoOutput", "KeyboardDisplay"};
    return std::find(std::begin(kKnown), std::end(kKnown), capability) != std::end(kKnown);
}

}  // namespace

const MethodTable<Agents>& Agents::methods() {
    static const MethodTable<Agents> kMethods(kAgentManager1,
                                              {{{"RegisterAgent", "os", ""}, &Agents::registerAgent},
                                               {{"UnregisterAgent", "o", ""}, &Agents::unregisterAgent},
                                               {{"RequestDefaultAgent", "o", ""}, &Agents::requestDefaultAgent}});
    return kMethods;
}

void Agents::registerAgent(const Call& call) {
    if (agents_.count(call.sender())) return call.fail(Errors::kAlreadyExists);
    const std::string capability = call.arguments()[1].text();
    if (!isCapability(capability)) return call.fail(Errors::kInvalidArguments);
    agents_[call.sender()] = {call.sender(), call.arguments()[0].text(),
                              capability.empty() ? "KeyboardDisplay" : capability};
    if (defaults_.empty()) defaults_.push_back(call.sender());
    call.reply();
}

void Agents::unregisterAgent(const Call& call) {
    if (!ownAgent(call)) return call.fail(Errors::kDoesNotExist);
    clientGone(call.sender());
    call.reply();
}

void Agents::requestDefaultAgent(const Call& call) {
    if (!ownAgent(call)) return call.fail(Errors::kDoesNotExist);
    std::erase(defaults_, call.sender());
    defaults_.push_back(call.sender());
    call.reply();
}

const Agent* Agents::ownAgent(const Call& call) const {
    const auto own = agents_.find(call.sender());
    return own != agents_.end() && own->second.path == call.arguments()[0].text() ? &own->second : nullptr;
}

void Agents::clientGone(const std::string& owner) {
    agents_.erase(owner);
    std::erase(defaults_, owner);
}

void Agents::forgetAll() {
    agents_.clear();
    defaults_.clear();
}

void Agents::release(const Bus& bus) {
    for (const auto& [owner, agent] : agents_) {
        bus.send(bus.newCall(owner, agent.path, "org.bluez.Agent1", "Release"));
    }
    forgetAll();
}

std::optional<Agent> Agents::agentFor(const std::string& owner) const {
    const auto own = agents_.find(owner);
    return own != agents_.end() ? own->second : defaultAgent();
}

std::optional<Agent> Agents::defaultAgent() const {
    if (defaults_.empty()) return std::nullopt;
    return agents_.at(defaults_.back());
}

std::vector<Agent> Agents::all() const {
    std::vector<Agent> all;
    for (const auto& [owner, agent] : agents_) all.push_back(agent);
    return all;
}

}  // namespace Simulator
