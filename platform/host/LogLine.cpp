#include "platform/host/LogLine.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "platform/host/StdOut.h"
#include "platform/host/SysLog.h"
#include "platform/host/Utf8.h"

namespace {

/// The journal's priorities are syslog's: 7 debug, 6 info, 5 notice, 4 warning, 3 error.
std::string priority(std::uint32_t level) {
    constexpr std::uint32_t kDebug = 7;
    constexpr std::uint32_t kHighestLevel = 4;
    return '<' + std::to_string(kDebug - std::min(level, kHighestLevel)) + '>';
}

std::string now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    tm utc{};
    gmtime_r(&time.tv_sec, &utc);
    std::array<char, 64> text;
    std::array<char, 8> milliseconds;
    std::snprintf(milliseconds.data(), milliseconds.size(), "%03d", static_cast<int>(time.tv_nsec / 1000000));
    const std::size_t length = strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S.", &utc);
    return std::string(text.data(), length) + milliseconds.data() + "Z ";
}

bool disturbs(char32_t code) {
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool separator = code == 0x2028 || code == 0x2029;  // ends a line for some readers
    return control || separator;
}

void appendEscaped(std::string& to, std::string_view bytes) {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    for (const char character : bytes) {
        const auto byte = static_cast<unsigned char>(character);
        to += "\\x";
        to += kDigits[byte >> 4];
        to += kDigits[byte & 0x0F];
    }
}

}  // namespace

std::string LogLine::format(std::uint32_t level, std::string_view id, std::string_view text) {
    std::string record = "[" + std::to_string(level) + "] " + SysLog::procName() + '/' + SysLog::thdName() + ' ';
    record.append(id).append(": ").append(text);
    return (StdOut::isJournal() ? priority(level) : now()) + escape(record) + '\n';
}

std::string LogLine::number(std::uint64_t value) {
    std::array<char, 64> text;
    const auto number = static_cast<unsigned long long>(value);
    const int length = std::snprintf(text.data(), text.size(), "%llxh (%llu)", number, number);
    return std::string(text.data(), static_cast<std::size_t>(length));
}

std::string LogLine::escape(std::string_view text) {
    const auto plain = [](char character) { return character >= 0x20 && character < 0x7F; };
    std::string escaped;
    escaped.reserve(text.size());
    for (;;) {
        const auto end = std::find_if_not(text.begin(), text.end(), plain);
        escaped.append(text.begin(), end);
        text.remove_prefix(static_cast<std::size_t>(end - text.begin()));
        if (text.empty()) return escaped;

        const Utf8::Character character = Utf8::first(text);
        const std::string_view bytes = text.substr(0, std::max<std::size_t>(character.length, 1));
        if (character.length > 0 && !disturbs(character.code)) {
            escaped += bytes;
        } else if (bytes == "\n") {
            escaped += "\\n";
        } else {
            appendEscaped(escaped, bytes);
        }
        text.remove_prefix(bytes.size());
    }
}
