#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "platform/host/Mutex.h"

/// Where finished log records go: to the standard output at once as far as that takes them, else into a backlog that a
/// thread of the sink's own, which lives as long as the backlog, writes when there is room. A full backlog drops the
/// newest lines; one line says later, at their place, how many. An error of the descriptor drops what cannot be
/// written. One for the process, which lives to its end.
class LogSink {
public:
    /// Bytes of lines kept for a reader that does not keep up; one longer line may stand alone.
    static constexpr std::size_t kMaxBacklog = std::size_t{1024} * 1024;

    static LogSink& instance();

    /// Writes the record as one line, or keeps or drops it; never waits for the reader. Any thread. The line's time is
    /// taken under the sink's lock: lines are in the order of their times.
    void write(std::uint32_t level, std::string_view id, std::string_view text);
    /// Waits for the backlog to be written, at most `timeoutMs` milliseconds of the monotonic clock. Any thread.
    void flush(std::uint32_t timeoutMs);

private:
    struct Line {
        std::string text;
        std::uint64_t records;  ///< lost with it: 1, or as many as it reports lost
    };

    LogSink() = default;
    bool fits(std::size_t bytes) const REQUIRES(mutex_) {
        return backlog_.empty() || backlogBytes_ + bytes <= kMaxBacklog;
    }
    bool keepIfFits(Line line) REQUIRES(mutex_);
    void keep(Line line) REQUIRES(mutex_);
    void reportLost(std::size_t withRoomFor) REQUIRES(mutex_);
    bool writeBacklog() REQUIRES(mutex_);
    std::string_view unwritten() const REQUIRES(mutex_);
    void noteWritten(ssize_t count) REQUIRES(mutex_);
    void dropBacklog() REQUIRES(mutex_);
    void startDraining() REQUIRES(mutex_);
    void drain();

    Mutex mutex_;
    std::condition_variable empty_;
    std::deque<Line> backlog_ GUARDED_BY(mutex_);
    std::size_t backlogBytes_ GUARDED_BY(mutex_) = 0;
    std::size_t begun_ GUARDED_BY(mutex_) = 0;   // bytes of the first line that are out
    std::uint64_t lost_ GUARDED_BY(mutex_) = 0;  // records dropped and not yet reported
    bool midLine_ GUARDED_BY(mutex_) = false;    // an error left a line unfinished on the descriptor
    bool failing_ GUARDED_BY(mutex_) = false;    // the last attempt to write met an error
    bool draining_ GUARDED_BY(mutex_) = false;   // the thread runs
};
