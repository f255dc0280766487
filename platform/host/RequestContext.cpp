#include "platform/host/RequestContext.h"

#include <utility>

namespace {

thread_local RequestContext* boundContext = nullptr;
std::atomic<std::uint32_t> slotsTaken{0};

bool takeSlot() noexcept {
    std::uint32_t taken = slotsTaken.load();
    do {
        if (taken >= RequestContext::kMaxBusCalls) return false;
    } while (!slotsTaken.compare_exchange_weak(taken, taken + 1));
    return true;
}

}  // namespace

RequestContext::RequestContext() noexcept : previous_(boundContext) {
    boundContext = this;
}

RequestContext::~RequestContext() {
    boundContext = previous_;
}

RequestContext* RequestContext::current() noexcept {
    return boundContext;
}

RequestContext::BusCall::BusCall() noexcept {
    RequestContext* const context = boundContext;
    if (!context) return;
    granted_ = held_ = !context->busy_ && takeSlot();
    context->busy_ = !granted_;
}

RequestContext::BusCall::BusCall(BusCall&& other) noexcept
    : granted_(other.granted_), held_(std::exchange(other.held_, false)) {}

RequestContext::BusCall::~BusCall() {
    if (held_) slotsTaken.fetch_sub(1);
}
