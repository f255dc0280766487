#include "platform/nodes/Interfaces.h"

namespace {

/// What the calling thread announced last, and to whom.
struct Announced {
    std::uint64_t instance = 0;
    std::uint64_t id = 0;
};
thread_local Announced announced;

}  // namespace

std::uint64_t CallerIdField::nextInstance() noexcept {
    static std::atomic<std::uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

void CallerIdField::set(std::uint64_t id) noexcept {
    announced = {instance_, id};
    last_.store(id, std::memory_order_relaxed);
}

std::uint64_t CallerIdField::get() const noexcept {
    return announced.instance == instance_ ? announced.id : last_.load(std::memory_order_relaxed);
}
