#pragma once

#include <cstdint>

/// The calling thread.
class Thd {
public:
    /// Sleeps `ms` milliseconds of the monotonic clock. False when interrupted (Interrupt::Level::HangUp and above)
    /// before they passed.
    static bool sleep(std::uint32_t ms);
};
