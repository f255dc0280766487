#ifndef SIMULATOR_CALLLOG_H
#define SIMULATOR_CALLLOG_H

#include <deque>
#include <list>
#include <map>
#include <string>
#include <utility>

#include "simulator/Bus.h"
#include "simulator/Loop.h"

namespace Simulator {

/// In place of a path or a member: any.
inline constexpr const char* kAny = "*";

/// The method calls that came in, for tests to look at. The last 100,000 are kept whole; all are counted.
class CallLog {
public:
    explicit CallLog(Loop& loop) : loop_(loop) {}

    void add(const Call& call);
    void clear();

    std::uint64_t count(const std::string& path, const std::string& member) const;
    /// The calls, oldest first: microseconds on the monotonic clock, sender, path, interface, member, arguments as
    /// text.
    Value list(const std::string& path, const std::string& member) const;
    /// Answers `waiting` with the count as soon as it reaches `wanted`, at the latest when the time is over.
    void answerAt(std::uint64_t wanted, const std::string& path, const std::string& member, milliseconds timeout,
                  const Call& waiting);

private:
    struct Entry {
        std::uint64_t time;
        Call call;
    };
    struct Waiter {
        std::uint64_t wanted;
        std::string path;
        std::string member;
        Call call;
        Timer timeout;
    };

    Loop& loop_;
    std::deque<Entry> entries_;
    std::map<std::pair<std::string, std::string>, std::uint64_t> counts_;  // by path and member
    std::list<Waiter> waiters_;
};

}  // namespace Simulator

#endif
