#ifndef SIMULATOR_SIMULATION_H
#define SIMULATOR_SIMULATION_H

#include <map>
#include <memory>
#include <string>

#include "simulator/Adapter.h"
#include "simulator/CallLog.h"
#include "simulator/Flood.h"
#include "simulator/Interference.h"
#include "simulator/Scenario.h"
#include "simulator/World.h"

namespace Simulator {

/// bluetoothd, as far as a client can tell: takes the calls from the bus and hands each to the object that it is for.
///
/// Facts that it keeps: a discovery belongs to the connection that started it, and ends when that leaves the bus; the
/// same holds for a pairing. A pairing uses the agent of the connection that called Pair, else the default agent. A
/// method that is called with other arguments than it has does not exist.
class Simulation {
public:
    Simulation(Loop& loop, Bus& bus, Narrator& narrator);
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    /// Ends what is there and begins the scenario. Registered agents stay.
    void load(const Scenario& scenario);

    /// Tells of the adapters that are there, as bluetoothd does when it has its name: who knew one that ended learns of
    /// the new one that way. Of devices it tells nobody, since scenarios have thousands.
    void announce() const;
    /// Takes leave as bluetoothd does when it is told to end: the power goes off, agents are released, objects go.
    void end();

    void handle(const Call& call);
    void clientGone(const std::string& client);

    /// Null when there is no such object.
    Adapter* adapter(const std::string& path);
    Device* device(const std::string& path);
    /// The adapter whose path starts the path of a device.
    Adapter* adapterOf(const std::string& devicePath);
    /// False when there is one of that name.
    bool addAdapter(const AdapterPlan& plan);
    bool removeAdapter(const std::string& path);
    std::vector<std::string> devices() const;

    World& world() { return world_; }
    Interference& interference() { return interference_; }
    CallLog& calls() { return calls_; }
    Flood& flood() { return flood_; }

private:
    void clear();
    void carryOut(const Call& call);
    void setProperty(const Call& call);
    void narrate(const Call& call) const;

    World world_;
    CallLog calls_;
    Interference interference_;
    std::map<std::string, std::unique_ptr<Adapter>> adapters_;  // by path
    Flood flood_;
};

}  // namespace Simulator

#endif
