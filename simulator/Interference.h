#ifndef SIMULATOR_INTERFERENCE_H
#define SIMULATOR_INTERFERENCE_H

#include <functional>
#include <list>
#include <string>

#include "simulator/Bus.h"
#include "simulator/Loop.h"

namespace Simulator {

/// Makes calls go wrong that a test named in advance: answered late, only when released, never, or with an error.
class Interference {
public:
    enum class Kind { Late, Hold, Never, Fail };

    /// What to do with the next `count` calls of a member on a path. Either may be kAny; a member followed by a blank
    /// and a word ("Get Alias") means calls whose last text argument is that word.
    struct Rule {
        std::string path;
        std::string member;
        std::uint32_t count = 1;
        Kind kind = Kind::Never;
        milliseconds delay{};
        std::string errorName;
        std::string errorText;
    };

    explicit Interference(Loop& loop) : loop_(loop) {}

    void add(const Rule& rule) { rules_.push_back(rule); }
    /// Takes the call when a rule is for it (the oldest one counts). `carryOut` is called, later, for one that is late
    /// or released: the call then meets the state of that moment.
    bool take(const Call& call, std::function<void()> carryOut);
    /// Carries out the calls that are held, in their order; returns how many there were.
    std::uint32_t release();
    std::uint32_t held() const { return static_cast<std::uint32_t>(held_.size()); }
    /// Forgets rules and held calls; held and late calls are never answered.
    void clear();

private:
    Loop& loop_;
    std::list<Rule> rules_;
    std::list<std::function<void()>> held_;
    std::list<Timer> late_;
};

}  // namespace Simulator

#endif
