#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// How a log record looks on the standard output.
class LogLine {
public:
    /// The record as one line with its line break: "2026-11-20T09:25:01.123Z [1] Process/Thread id: text" with the
    /// time of the call (UTC) and the calling thread's names, or, where the standard output is the journal, its
    /// priority in place of the time: "<6>[1] Process/Thread id: text".
    static std::string format(std::uint32_t level, std::string_view id, std::string_view text);
    /// A number as records have it: hexadecimal (lower case, no padding), "h (", decimal, ")".
    static std::string number(std::uint64_t value);
    /// The text with everything escaped that could end the line or disturb a terminal: a line feed as \n, as \xNN each
    /// byte of other control characters (C0, DEL, C1), of the line and paragraph separators, and of what is not UTF-8.
    static std::string escape(std::string_view text);
};
