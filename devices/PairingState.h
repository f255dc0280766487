#pragma once

#include <cstdint>

namespace Services::Bluetooth::Linux {

/// Where a device stands; who waits for what in each state is told in Device.h.
enum class PairingState : std::uint64_t {
    Unpaired = 0,
    Pairing = 1,     ///< BlueZ was asked to pair and has not answered
    Pincode = 2,     ///< the same, and a pincode is to be typed on the device
    Cancelling = 3,  ///< the same, and BlueZ was asked to give up
    Paired = 4,
    Unpairing = 5,
};

/// Outcomes of an operation, as clients read them.
namespace ResultCode {
inline constexpr std::uint32_t kSuccess = 0;
inline constexpr std::uint32_t kFailure = 0x8443;
inline constexpr std::uint32_t kUnknownAction = 0x8446;
inline constexpr std::uint32_t kNothingToWaitFor = 0x8483;
}  // namespace ResultCode

}  // namespace Services::Bluetooth::Linux
