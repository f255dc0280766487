#ifndef SIMULATOR_WORLD_H
#define SIMULATOR_WORLD_H

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "simulator/Agents.h"
#include "simulator/Bus.h"
#include "simulator/Loop.h"
#include "simulator/Model.h"
#include "simulator/Narrator.h"
#include "simulator/ObjectTree.h"

namespace Simulator {

inline constexpr const char* kAdapter1 = "org.bluez.Adapter1";
inline constexpr const char* kDevice1 = "org.bluez.Device1";

/// A device somewhere on the air.
struct DevicePlan {
    std::string adapter;  // kernel name of the controller that it is in range of: "hci0"
    std::string address;
    std::string model;
    /// None: bluetoothd knows the device from the start and keeps it. Otherwise an inquiry finds it after this time,
    /// and it is forgotten again when it was not seen for a while.
    std::optional<milliseconds> foundAfter;
    /// In place of what the model tells.
    NamedValues properties{};
};

/// A local controller.
struct AdapterPlan {
    std::string name;  // kernel name: "hci0"
    std::string address;
    std::string alias;
    bool powered = true;
    /// Powers itself on this long after it was shown.
    std::optional<milliseconds> poweredAfter{};
    NamedValues properties{};
};

/// The times that the simulation keeps.
struct Tuning {
    /// A device that an inquiry found, and that is neither paired nor connected, is forgotten when it was not seen for
    /// this long, as bluetoothd does after 30 s, and at once when its pairing failed. 0 is never, for both.
    milliseconds forgetAfter{30000};
    /// Pincodes are typed by themselves after this time. 0 is never: they have to be typed through the control
    /// interface.
    milliseconds typeAfter{0};
    /// bluetoothd gives an agent 60 s for its answer.
    milliseconds agentTimeout{60000};
    /// After a wrong pincode bluetoothd tries again: two times with another pincode, then it asks the agent for one,
    /// each this long (3 s) after the last failure. 0: the pairing ends with AuthenticationFailed.
    milliseconds retryAfter{0};
    /// A wrong pincode that came within this time was not typed by a person: bluetoothd then takes the keyboard for one
    /// with a fixed code, tries "0000" in place of a pincode to be shown, and after that asks the agent. 0 is never.
    milliseconds hastyWithin{500};
    /// While an adapter inquires, each device in range is seen again, with another RSSI, this often. 0 is never.
    milliseconds seenEvery{1000};
};

/// What all parts of the simulated world share.
struct World {
    Loop& loop;
    Bus& bus;
    Narrator& narrator;
    ObjectTree objects{bus};
    Agents agents{};
    Tuning tuning{};
    std::mt19937 random{};

    /// Six random digits.
    std::string newPinCode();
    /// Between -95 and -35 dBm, as bluetoothd tells it.
    std::int16_t newRssi();
};

}  // namespace Simulator

#endif
