#include "platform/nodes/Interfaces.h"

namespace {

/// What the calling thread announced last, and to whom.
struct Announced {
    const CallerIdField* field = nullptr;
    std::uint64_t id = 0;
};
thread_local Announced announced;

}  // namespace

void CallerIdField::set(std::uint64_t id) noexcept {
    announced = {this, id};
    last_.store(id, std::memory_order_relaxed);
}

std::uint64_t CallerIdField::get() const noexcept {
    return announced.field == this ? announced.id : last_.load(std::memory_order_relaxed);
}
