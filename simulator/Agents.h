#ifndef SIMULATOR_AGENTS_H
#define SIMULATOR_AGENTS_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "simulator/Bus.h"
#include "simulator/MethodTable.h"

namespace Simulator {

inline constexpr const char* kAgentManager1 = "org.bluez.AgentManager1";

/// A pairing agent that a client registered: who is asked for, or shown, a pincode.
struct Agent {
    std::string owner;  // unique name of the connection
    std::string path;
    std::string capability;
};

/// org.bluez.AgentManager1: one agent per connection. The first one to register is the default, until another asks to
/// be; when that goes, the one before it is the default again.
class Agents {
public:
    static const MethodTable<Agents>& methods();
    void clientGone(const std::string& owner);
    void forgetAll();
    /// Tells every agent that it is not needed any more, and forgets it.
    void release(const Bus& bus);

    /// The agent of the connection, else the default agent, else none.
    std::optional<Agent> agentFor(const std::string& owner) const;
    std::optional<Agent> defaultAgent() const;
    std::vector<Agent> all() const;

private:
    void registerAgent(const Call& call);
    void unregisterAgent(const Call& call);
    void requestDefaultAgent(const Call& call);
    /// The agent of the caller when the call's argument is its path.
    const Agent* ownAgent(const Call& call) const;

    std::map<std::string, Agent> agents_;  // by owner
    std::vector<std::string> defaults_;    // owners, the present default last
};

}  // namespace Simulator

#endif
