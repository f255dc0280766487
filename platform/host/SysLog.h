#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/host/String.h"

/// Names that stand in every log line: "Process/Thread". Any thread.
class SysLog {
public:
    /// The process's name; until then it is the program's.
    static void procName(const Ref<String>& name);
    static std::string procName();
    /// The calling thread's name; until then, and after an empty one, it is the kernel's number of the thread.
    static void thdName(const Ref<String>& name);
    static std::string thdName();
};

/// Which records are written. A message of level N is produced when level() <= N and state(handle) is true. Any thread;
/// asking takes no lock.
class SysLogFilter {
public:
    /// Registers a filter name for one module; every call gives a handle of its own (never 0), also for a name that is
    /// registered already. Any thread.
    static std::uint64_t reg(const Ref<String>& name);
    /// The threshold: SYSLOG_LEVEL of the environment at the start (a decimal number; else 0).
    static std::uint32_t level() noexcept;
    static void setLevel(std::uint32_t level) noexcept;
    /// On for a registered handle unless switched off; false for a handle that was never given out.
    static bool state(std::uint64_t handle) noexcept;
    static void setState(std::uint64_t handle, bool on) noexcept;
    /// The name behind the handle, the tag of its records, valid for ever; empty for a handle never given out.
    static std::string_view id(std::uint64_t handle) noexcept;
};

/// A stream of records. Each thread has one open record at most: begin() while one is open goes on with that one, so a
/// record that one statement left open is ended by the next. Control characters in texts are escaped (\xNN, \n as \n),
/// see LogLine; without an open record append() and end() do nothing. A thread that ends ends its open record.
class SysLogStream {
public:
    /// The printer on standard output, one for the process. Usable from any thread.
    static SysLogStream& stdOutPrinter() noexcept;

    /// Opens a record with its level and its tag (see SysLogFilter::id), or goes on with the thread's open one.
    SysLogStream& begin(std::uint32_t level, std::string_view id);
    SysLogStream& append(std::string_view text);
    SysLogStream& append(const Ref<String>& text) { return append(viewOf(text)); }
    /// The number in hexadecimal (lower case, no padding), "h (", in decimal, ")".
    SysLogStream& appendNumber(std::uint64_t number);
    /// Ends the record: it is written as one line, at once. A reader that does not keep up delays nobody: what the
    /// descriptor does not take is kept, up to a limit, and written when it does.
    void end();
    /// Waits for kept lines to be written, at most `timeoutMs` milliseconds.
    void flush(std::uint32_t timeoutMs);
};

/// One record in one statement: `LogRecord(3, handle) << "Could not ... " << path;` Writes and formats nothing when the
/// filter says so. Texts are kept until the statement ends, so that values that log on their own get lines of their
/// own.
class LogRecord {
public:
    /// `endsLine` false leaves the line open: the thread's next record goes on with it and ends it, and has no level
    /// and tag of its own. Where the filter lets only the first of the two through, its line is ended without the
    /// second's text; where only the second, that is a line.
    LogRecord(std::uint32_t level, std::uint64_t handle, bool endsLine = true);
    ~LogRecord();
    LogRecord(const LogRecord&) = delete;
    LogRecord& operator=(const LogRecord&) = delete;

    LogRecord& operator<<(std::string_view text);
    LogRecord& operator<<(const char* text) { return *this << std::string_view(text ? text : "(null)"); }
    LogRecord& operator<<(const Ref<String>& text) { return *this << viewOf(text); }
    /// Hexadecimal, "h (", decimal, ")".
    LogRecord& number(std::uint64_t value);

private:
    const bool on_;
    const bool endsLine_;
    const std::uint32_t level_;
    const std::uint64_t handle_;
    // Collected here, not in the open record: a value may log while it is being worked out.
    std::string text_;
};
