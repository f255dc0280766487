#ifndef SIMULATOR_SCENARIO_H
#define SIMULATOR_SCENARIO_H

#include <string>
#include <vector>

#include "simulator/World.h"

namespace Simulator {

/// An object that bluetoothd would never show: exactly these interfaces with these properties, in this order.
struct RawObject {
    std::string path;
    std::vector<Interface> interfaces;
};

/// What is there when the simulator starts.
struct Scenario {
    std::vector<AdapterPlan> adapters;
    std::vector<DevicePlan> devices;
    std::vector<RawObject> objects{};
    Tuning tuning{};
    /// PropertiesChanged signals a second, from the start.
    std::uint32_t flood = 0;
};

struct NamedScenario {
    const char* name;
    const char* summary;
    Scenario (*make)();
};

const std::vector<NamedScenario>& scenarios();
/// Null when there is none of that name.
const NamedScenario* findScenario(const std::string& name);

}  // namespace Simulator

#endif
