#include "simulator/Narrator.h"

#include <fmt/format.h>

#include <cstdio>

namespace Simulator {

void Narrator::event(const std::string& text) const {
    if (detail_ != Detail::Nothing) fmt::print(stderr, "bluez-simulator: {}\n", text);
}

void Narrator::read(const std::string& text) const {
    if (detail_ == Detail::Everything) fmt::print(stderr, "bluez-simulator: {}\n", text);
}

}  // namespace Simulator
