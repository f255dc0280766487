#pragma once

#include <chrono>
#include <cstdlib>
#include <thread>

namespace UnitTest {

/// How long a test waits for something that must happen; generous, as sanitizers and a loaded machine are slow.
constexpr std::chrono::seconds kPatience{20};

/// A limit for the build under test: BTN_SLOWNESS is the factor by which a sanitizer makes it slower.
inline std::chrono::milliseconds stretched(std::chrono::milliseconds limit) {
    const char* const slowness = std::getenv("BTN_SLOWNESS");
    return slowness ? std::chrono::duration_cast<std::chrono::milliseconds>(limit * std::atof(slowness)) : limit;
}

/// Waits until the condition holds. False when it does not within the limit.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit = kPatience) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace UnitTest
