#include "simulator/CallLog.h"

#include "simulator/ValueText.h"

namespace Simulator {

namespace {

constexpr std::size_t kKept = 100000;

bool matches(const std::string& wanted, const std::string& actual) {
    return wanted == kAny || wanted == actual;
}

}  // namespace

void CallLog::add(const Call& call) {
    std::uint64_t now = 0;
    sd_event_now(loop_.raw(), CLOCK_MONOTONIC, &now);
    entries_.push_back({now, call});
    if (entries_.size() > kKept) entries_.pop_front();
    ++counts_[{call.path(), call.member()}];
    for (auto waiter = waiters_.begin(); waiter != waiters_.end();) {
        const std::uint64_t reached = count(waiter->path, waiter->member);
        if (reached < waiter->wanted) {
            ++waiter;
            continue;
        }
        waiter->call.reply({Value::uint64(reached)});
        waiter = waiters_.erase(waiter);
    }
}

void CallLog::clear() {
    entries_.clear();
    counts_.clear();
}

std::uint64_t CallLog::count(const std::string& path, const std::string& member) const {
    std::uint64_t sum = 0;
    for (const auto& [key, number] : counts_) {
        if (matches(path, key.first) && matches(member, key.second)) sum += number;
    }
    return sum;
}

Value CallLog::list(const std::string& path, const std::string& member) const {
    Value::List list;
    for (const auto& [time, call] : entries_) {
        if (!matches(path, call.path()) || !matches(member, call.member())) continue;
        list.push_back(Value::structure({Value::uint64(time), Value::string(call.sender()), Value::string(call.path()),
                                         Value::string(call.interface()), Value::string(call.member()),
                                         Value::string(toText(call.arguments()))}));
    }
    return Value::array("(tsssss)", std::move(list));
}

void CallLog::answerAt(std::uint64_t wanted, const std::string& path, const std::string& member, milliseconds timeout,
                       const Call& waiting) {
    const std::uint64_t reached = count(path, member);
    if (reached >= wanted) return waiting.reply({Value::uint64(reached)});
    const auto waiter = waiters_.insert(waiters_.end(), {wanted, path, member, waiting, {}});
    waiter->timeout = loop_.after(timeout, [this, waiter] {
        waiter->call.reply({Value::uint64(count(waiter->path, waiter->member))});
        waiters_.erase(waiter);
    });
}

}  // namespace Simulator
