#include "platform/host/Object.h"

#include <cassert>
#include <thread>

// The life of an object in its count: 0 when it is made, 1 and more while somebody refers to it, and kDying, plus what
// its own destructor takes and gives back meanwhile, from the moment the last reference went. Nothing leads from kDying
// back, so neither a weak reference nor a Ref that the destructor makes of itself can bring the object back or destroy
// it a second time.

namespace {
constexpr std::uint32_t kDying = 0x80000000u;
}

void RefCount::incRef() const noexcept {
    count_.fetch_add(1, std::memory_order_relaxed);
}

void RefCount::decRef() const noexcept {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    count_.store(kDying, std::memory_order_relaxed);
    delete this;
}

bool RefCount::incRefUnlessGone() const noexcept {
    std::uint32_t count = count_.load(std::memory_order_relaxed);
    do {
        if (count == 0 || count >= kDying) return false;
    } while (!count_.compare_exchange_weak(count, count + 1, std::memory_order_relaxed));
    return true;
}

Ref<GcProxy> RefCount::gcProxy() const {
    GcProxy* proxy = proxy_.load(std::memory_order_acquire);
    if (proxy) return Ref<GcProxy>(proxy);
    Ref<GcProxy> made(new GcProxy(this));
    if (!proxy_.compare_exchange_strong(proxy, made.get(), std::memory_order_acq_rel)) return Ref<GcProxy>(proxy);
    made->incRef();  // the object's own
    return made;
}

RefCount::~RefCount() {
    [[maybe_unused]] const std::uint32_t count = count_.load(std::memory_order_relaxed);
    assert((count == 0 || count == kDying) && "destroyed while somebody refers to it");
    GcProxy* proxy = proxy_.load(std::memory_order_acquire);
    if (!proxy) return;
    proxy->clear();  // waits for a thread that is looking at the count
    proxy->decRef();
}

void GcProxy::incRef() const noexcept {
    count_.fetch_add(1, std::memory_order_relaxed);
}

void GcProxy::decRef() const noexcept {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

bool GcProxy::lockWeakRef() const noexcept {
    const Busy busy(busy_);
    return object_ && object_->incRefUnlessGone();
}

void GcProxy::clear() noexcept {
    const Busy busy(busy_);
    object_ = nullptr;
}

GcProxy::Busy::Busy(std::atomic_flag& flag) noexcept : flag_(flag) {
    while (flag_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
}

GcProxy::Busy::~Busy() {
    flag_.clear(std::memory_order_release);
}
