#include "platform/host/RequestContext.h"

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

RequestContext::BusCall::BusCall() noexcept : context_(boundContext), granted_(true) {
    if (!context_) return;
    granted_ = !context_->busy_ && takeSlot();
    context_->busy_ = !granted_;
}

RequestContext::BusCall::~BusCall() {
    if (context_ && granted_) slotsTaken.fetch_sub(1);
}
