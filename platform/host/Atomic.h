#pragma once

#include <atomic>
#include <cstdint>

/// Compare-and-swap on plain atomic integers.
class Atomic {
public:
    /// Replaces `expected` by `desired`; true when the value was `expected`. Sequentially consistent.
    static bool cas(std::atomic<std::uint64_t>& value, std::uint64_t expected, std::uint64_t desired) noexcept {
        return value.compare_exchange_strong(expected, desired);
    }
};
