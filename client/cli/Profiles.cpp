#include "client/cli/Profiles.h"

#include <fmt/format.h>

#include "btnode/AssignedNumbers.h"

namespace btnode::cli {

std::vector<std::uint32_t> profileNumbers(const Value& list) {
    std::vector<std::uint32_t> numbers;
    for (const Value& each : list.children) {
        if (each.kind == Value::Kind::Integer) numbers.push_back(static_cast<std::uint32_t>(each.integer));
    }
    return numbers;
}

std::string profileNumberText(std::uint32_t number) {
    return fmt::format("0x{:04x}", number);
}

std::string profileTitle(std::uint32_t number) {
    const auto name = profileName(number);
    return name ? fmt::format("{} ({})", *name, profileNumberText(number)) : profileNumberText(number);
}

}  // namespace btnode::cli
