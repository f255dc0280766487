#include "platform/host/LogSink.h"

#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/host/LogLine.h"
#include "platform/host/StdOut.h"

namespace {

/// The longest wait for room in one go: the descriptor may be redirected meanwhile.
constexpr int kRoomPollMs = 500;
/// The level of the line that tells of lost ones: degraded, but going on.
constexpr std::uint32_t kLostLevel = 3;

}  // namespace

LogSink& LogSink::instance() {
    static auto& only = *new LogSink;
    return only;
}

void LogSink::write(std::uint32_t level, std::string_view id, std::string_view text) {
    const MutexLock lock(mutex_);
    if (!fits(text.size()) || !keepIfFits({LogLine::format(level, id, text), 1})) ++lost_;
    if (!draining_ && !writeBacklog()) startDraining();
}

/// False: the line is lost.
bool LogSink::keepIfFits(Line line) {
    if (lost_ > 0) reportLost(line.text.size());
    if (lost_ > 0 || !fits(line.text.size())) return false;
    keep(std::move(line));
    return true;
}

void LogSink::keep(Line line) {
    if (std::exchange(midLine_, false)) line.text.insert(0, 1, '\n');
    backlogBytes_ += line.text.size();
    backlog_.push_back(std::move(line));
}

/// Puts the line that tells of lost ones where they are missing, when there is room for it and for what follows.
void LogSink::reportLost(std::size_t withRoomFor) {
    std::string text = LogLine::format(kLostLevel, "SysLog", "Log lines lost: " + LogLine::number(lost_));
    if (fits(text.size() + withRoomFor)) keep({std::move(text), std::exchange(lost_, 0)});
}

/// Writes what can be written at once. True: nothing is left to do.
bool LogSink::writeBacklog() {
    while (!backlog_.empty()) {
        const ssize_t count = StdOut::writeSome(unwritten());
        if (count == 0) return false;
        noteWritten(count);
    }
    empty_.notify_all();
    return true;
}

/// The first line as far as it is not out. Valid without the lock, too, on the thread that writes: that one alone takes
/// lines away.
std::string_view LogSink::unwritten() const {
    return std::string_view(backlog_.front().text).substr(begun_);
}

/// What became of a write of unwritten().
void LogSink::noteWritten(ssize_t count) {
    failing_ = count < 0;
    if (failing_) {
        dropBacklog();
        return;
    }
    begun_ += static_cast<std::size_t>(count);
    if (begun_ < backlog_.front().text.size()) return;
    backlogBytes_ -= backlog_.front().text.size();
    backlog_.pop_front();
    begun_ = 0;
}

void LogSink::dropBacklog() {
    for (const Line& line : backlog_) lost_ += line.records;
    backlog_.clear();
    backlogBytes_ = 0;
    midLine_ = midLine_ || begun_ > 0;
    begun_ = 0;
}

void LogSink::startDraining() {
    try {
        std::thread(&LogSink::drain, this).detach();
        draining_ = true;
    } catch (const std::system_error&) {
        // No thread to be had: the next line tries again.
    }
}

void LogSink::drain() {
    MutexLock lock(mutex_);
    bool claimsRoom = false;
    for (;;) {
        const std::size_t before = backlogBytes_ - begun_;
        if (writeBacklog()) {
            if (lost_ == 0 || failing_) break;
            reportLost(0);
            continue;
        }
        const bool tookNothing = backlogBytes_ - begun_ == before;
        const std::string_view rest = unwritten();
        lock.unlock();
        // Room that cannot be had without waiting: a terminal that cannot be opened once more. Here nobody else waits.
        const ssize_t count = claimsRoom && tookNothing ? StdOut::writeWaiting(rest) : 0;
        if (count == 0) claimsRoom = StdOut::awaitRoom(kRoomPollMs);
        lock.lock();
        if (count != 0) noteWritten(count);
    }
    draining_ = false;
}

void LogSink::flush(std::uint32_t timeoutMs) {
    MutexLock lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!backlog_.empty()) {
        if (empty_.wait_until(lock.native(), deadline) == std::cv_status::timeout) return;
    }
}
