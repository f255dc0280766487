#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "btnode/Value.h"

namespace btnode::cli {

/// The numbers in a PROFILES or ACTIVE_PROFILES value, in its order.
std::vector<std::uint32_t> profileNumbers(const Value& list);
/// "0x110b"
std::string profileNumberText(std::uint32_t number);
/// "Audio Sink (0x110b)", or the number alone.
std::string profileTitle(std::uint32_t number);

}  // namespace btnode::cli
