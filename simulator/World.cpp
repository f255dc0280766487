#include "simulator/World.h"

#include <fmt/format.h>

namespace Simulator {

std::string World::newPinCode() {
    return fmt::format("{:06}", std::uniform_int_distribution<int>(0, 999999)(random));
}

std::int16_t World::newRssi() {
    return static_cast<std::int16_t>(std::uniform_int_distribution<int>(-95, -35)(random));
}

}  // namespace Simulator
