#include "simulator/Interference.h"

#include <algorithm>

#include "simulator/CallLog.h"

namespace Simulator {

namespace {

bool isFor(const Interference::Rule& rule, const Call& call) {
    if (rule.path != kAny && rule.path != call.path()) return false;
    const auto blank = rule.member.find(' ');
    const std::string member = rule.member.substr(0, blank);
    if (member != kAny && member != call.member()) return false;
    if (blank == std::string::npos) return true;
    const auto& arguments = call.arguments();
    const auto last = std::find_if(arguments.rbegin(), arguments.rend(), [](const Value& v) { return v.isText(); });
    return last != arguments.rend() && last->text() == rule.member.substr(blank + 1);
}

}  // namespace

bool Interference::take(const Call& call, std::function<void()> carryOut) {
    const auto found = std::find_if(rules_.begin(), rules_.end(), [&](const Rule& rule) { return isFor(rule, call); });
    if (found == rules_.end()) return false;
    const Rule rule = *found;
    if (--found->count == 0) rules_.erase(found);
    switch (rule.kind) {
        case Kind::Late: {
            const auto timer = late_.emplace(late_.end());
            *timer = loop_.after(rule.delay, [this, timer, carryOut = std::move(carryOut)] {
                late_.erase(timer);
                carryOut();
            });
            break;
        }
        case Kind::Hold:
            held_.push_back(std::move(carryOut));
            break;
        case Kind::Never:
            break;
        case Kind::Fail:
            call.fail(rule.errorName, rule.errorText);
            break;
    }
    return true;
}

std::uint32_t Interference::release() {
    const auto released = std::move(held_);
    held_.clear();
    for (const auto& carryOut : released) carryOut();
    return static_cast<std::uint32_t>(released.size());
}

void Interference::clear() {
    rules_.clear();
    held_.clear();
    late_.clear();
}

}  // namespace Simulator
