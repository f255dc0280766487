#pragma once

#include <cstdint>
#include <string>

#include "btnode/Value.h"
#include "client/cli/ExitCode.h"

/// The service's codes in words.
namespace btnode::cli {

/// Result codes of the nodes.
inline constexpr std::int64_t kResultFailure = 33859;
inline constexpr std::int64_t kResultNothingToWaitFor = 33923;
inline constexpr std::int64_t kResultUnknownAction = 33862;
inline constexpr std::int64_t kResultRefused = 4294967295;
/// RESULT of a CONNECT that brings a PINCODE.
inline constexpr std::int64_t kResultPincode = 1;

/// STATUS of a device.
inline constexpr std::int64_t kStatusBusy = 0;
inline constexpr std::int64_t kStatusUnpaired = 1;
inline constexpr std::int64_t kStatusPairing = 2;
inline constexpr std::int64_t kStatusPaired = 3;

/// "paired", …; "busy" for a device whose pincode is shown, or that is cancelling or unpairing.
std::string statusWord(std::int64_t status);

/// What an action's result means.
struct Outcome {
    ExitCode code;
    /// Why it failed; empty when it did not.
    std::string words;
};
/// The result's name is the action.
Outcome outcomeOf(const Value& result);

/// A value's payload as text: the entries of a list with a blank between them, with NAME= before them when asked for.
std::string plainText(const Value& value);
std::string namedText(const Value& value);

}  // namespace btnode::cli
