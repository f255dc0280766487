#include <array>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <string>

#include "platform/host/Mutex.h"
#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"

namespace {

struct Filter {
    std::string name;
    std::atomic<bool> on{true};
};

/// The filters by handle, which is their number counted from 1. They are never removed, and read without a lock: a
/// filter is complete before `used_` counts it.
class Filters {
public:
    static Filters& instance() {
        static auto& only = *new Filters;
        return only;
    }

    std::uint64_t add(std::string_view name) {
        const MutexLock lock(mutex_);
        const std::uint64_t index = used_.load(std::memory_order_relaxed);
        Block* block = &first_;
        for (std::uint64_t begin = kBlock; begin <= index; begin += kBlock) {
            if (!block->next) block->next = new Block;
            block = block->next;
        }
        block->filters[index % kBlock].name = name;
        used_.store(index + 1, std::memory_order_release);
        return index + 1;
    }

    /// Null for a handle that was never given out.
    Filter* find(std::uint64_t handle) noexcept {
        if (handle == 0 || handle > used_.load(std::memory_order_acquire)) return nullptr;
        const std::uint64_t index = handle - 1;
        Block* block = &first_;
        for (std::uint64_t skip = index / kBlock; skip > 0; --skip) block = block->next;
        return &block->filters[index % kBlock];
    }

private:
    static constexpr std::uint64_t kBlock = 64;
    struct Block {
        std::array<Filter, kBlock> filters;
        Block* next = nullptr;
    };

    Mutex mutex_;  // held to add
    std::atomic<std::uint64_t> used_{0};
    Block first_;
};

/// Not yet taken from the environment; no threshold has this value.
constexpr std::uint64_t kUnset = std::numeric_limits<std::uint64_t>::max();
std::atomic<std::uint64_t> threshold{kUnset};

std::uint32_t levelOfEnvironment() noexcept {
    const char* const text = std::getenv("SYSLOG_LEVEL");
    unsigned int level = 0;
    return text && StrConv::num(text, &level, 10) ? level : 0;
}

}  // namespace

std::uint64_t SysLogFilter::reg(const Ref<String>& name) {
    return Filters::instance().add(viewOf(name));
}

std::uint32_t SysLogFilter::level() noexcept {
    std::uint64_t level = threshold.load(std::memory_order_relaxed);
    if (level == kUnset) {
        const std::uint64_t initial = levelOfEnvironment();
        if (threshold.compare_exchange_strong(level, initial)) level = initial;
    }
    return static_cast<std::uint32_t>(level);
}

void SysLogFilter::setLevel(std::uint32_t level) noexcept {
    threshold.store(level, std::memory_order_relaxed);
}

bool SysLogFilter::state(std::uint64_t handle) noexcept {
    const Filter* const filter = Filters::instance().find(handle);
    return filter && filter->on.load(std::memory_order_relaxed);
}

void SysLogFilter::setState(std::uint64_t handle, bool on) noexcept {
    if (Filter* const filter = Filters::instance().find(handle)) filter->on.store(on, std::memory_order_relaxed);
}

std::string_view SysLogFilter::id(std::uint64_t handle) noexcept {
    const Filter* const filter = Filters::instance().find(handle);
    return filter ? std::string_view(filter->name) : std::string_view();
}
