#pragma once

#include <chrono>
#include <thread>

namespace UnitTest {

/// How long a test waits for something that must happen; generous, as sanitizers and a loaded machine are slow.
constexpr std::chrono::seconds kPatience{20};

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
