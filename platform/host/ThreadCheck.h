#pragma once

#include <atomic>
#include <cassert>
#include <thread>

#include "platform/host/ThreadSafety.h"

/// The rule that some functions and fields belong to one thread: the first one that calls check(). Clang takes the
/// object for a capability that check() asserts, so fields can be GUARDED_BY it and functions can REQUIRE it; without
/// NDEBUG a call on any other thread ends the process.
class CAPABILITY("thread") ThreadCheck {
public:
    void check() const noexcept BTN_TSA(assert_capability(this)) { assert(isOwner()); }

private:
    [[maybe_unused]] bool isOwner() const noexcept {
        const std::thread::id self = std::this_thread::get_id();
        std::thread::id owner;
        return owner_.compare_exchange_strong(owner, self) || owner == self;
    }

    mutable std::atomic<std::thread::id> owner_{};
};
