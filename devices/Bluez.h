#pragma once

#include <cstdint>

/// Names on BlueZ's side of the bus.
namespace Services::Bluetooth::Linux::Bluez {

inline constexpr const char* kService = "org.bluez";
inline constexpr const char* kAdapter = "org.bluez.Adapter1";
inline constexpr const char* kDevice = "org.bluez.Device1";

/// The time-out of property reads: they wait as long as the bus library allows.
inline constexpr std::uint64_t kNoLimit = 4294967295u;

}  // namespace Services::Bluetooth::Linux::Bluez
