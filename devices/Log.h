#pragma once

#include <cstdint>

/// Handles of the log filter, one a module; registered by the static initialisers.
namespace Services::Bluetooth::Linux::Log {

extern std::uint64_t device;    ///< one device: its properties, pairing, profiles, property watch
extern std::uint64_t registry;  ///< the devices registry and its node commands

}  // namespace Services::Bluetooth::Linux::Log
