#include "client/cli/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "btnode/Codec.h"

namespace btnode::cli {

namespace {

constexpr std::string_view kReplacement = "\xef\xbf\xbd";
constexpr std::string_view kEllipsis = "\xe2\x80\xa6";

struct Character {
    std::uint32_t code;
    std::size_t length;
    bool valid;
};

/// The character at the beginning of a text that is not empty; one byte of what is no UTF-8.
Character firstOf(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return {lead, 1, true};
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (text.size() < length || !codec::isUtf8(text.substr(0, length))) return {lead, 1, false};
    std::uint32_t code = lead & (0xffU >> (length + 1));
    for (std::size_t at = 1; at < length; ++at) code = (code << 6U) | (static_cast<unsigned char>(text[at]) & 0x3fU);
    return {code, length, true};
}

bool turnsDirection(std::uint32_t code) {
    return code == 0x061c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e) ||
           (code >= 0x2066 && code <= 0x2069);
}

struct Range {
    std::uint32_t first;
    std::uint32_t last;
};

// Unicode 15, East Asian Width W and F, by block: names of devices need no finer table.
constexpr std::array<Range, 18> kWide = {{{0x1100, 0x115f},
                                          {0x231a, 0x231b},
                                          {0x2614, 0x2615},
                                          {0x26a1, 0x26a1},
                                          {0x2705, 0x2705},
                                          {0x2728, 0x2728},
                                          {0x2753, 0x2757},
                                          {0x2e80, 0x303e},
                                          {0x3041, 0x33ff},
                                          {0x3400, 0x4dbf},
                                          {0x4e00, 0x9fff},
                                          {0xa000, 0xa4cf},
                                          {0xac00, 0xd7a3},
                                          {0xf900, 0xfaff},
                                          {0xfe30, 0xfe6f},
                                          {0xff00, 0xff60},
                                          {0x1f300, 0x1faff},
                                          {0x20000, 0x3fffd}}};
// Combining marks, joiners and variation selectors.
constexpr std::array<Range, 6> kZero = {
    {{0x0300, 0x036f}, {0x1ab0, 0x1aff}, {0x200b, 0x200d}, {0x20d0, 0x20ff}, {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f}}};

template <std::size_t Size>
bool within(const std::array<Range, Size>& ranges, std::uint32_t code) {
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const Range& each) { return code >= each.first && code <= each.last; });
}

std::size_t widthOf(std::uint32_t code) {
    if (code < 0x300) return 1;
    if (within(kZero, code)) return 0;
    return within(kWide, code) ? 2 : 1;
}

}  // namespace

std::string sanitised(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Character next = firstOf(text);
        if (!next.valid) {
            out += kReplacement;
        } else if (next.code < 0x20 || (next.code >= 0x7f && next.code < 0xa0)) {
            out += fmt::format("\\x{:02x}", next.code);
        } else if (turnsDirection(next.code) || next.code == 0x2028 || next.code == 0x2029) {
            out += fmt::format("\\u{{{:x}}}", next.code);
        } else {
            out += text.substr(0, next.length);
        }
        text.remove_prefix(next.length);
    }
    return out;
}

std::string asUtf8(std::string_view text) {
    if (codec::isUtf8(text)) return std::string(text);
    std::string out;
    while (!text.empty()) {
        const Character next = firstOf(text);
        out += next.valid ? text.substr(0, next.length) : kReplacement;
        text.remove_prefix(next.length);
    }
    return out;
}

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const Character next = firstOf(text);
        width += widthOf(next.code);
        text.remove_prefix(next.length);
    }
    return width;
}

std::string clipped(std::string_view text, std::size_t width) {
    if (displayWidth(text) <= width) return std::string(text);
    if (width == 0) return {};
    std::string out;
    std::size_t used = 0;
    while (!text.empty()) {
        const Character next = firstOf(text);
        if (used + widthOf(next.code) > width - 1) break;
        used += widthOf(next.code);
        out += text.substr(0, next.length);
        text.remove_prefix(next.length);
    }
    return out + std::string(kEllipsis);
}

std::vector<std::string> Table::lines() const {
    std::vector<std::size_t> widths;
    for (const auto& row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t at = 0; at < row.size(); ++at) widths[at] = std::max(widths[at], displayWidth(row[at]));
    }
    std::vector<std::string> lines;
    for (const auto& row : rows_) {
        std::string line;
        std::size_t gap = 0;
        for (std::size_t at = 0; at < row.size(); ++at) {
            if (!row[at].empty()) {
                line.append(gap, ' ');
                line += row[at];
                gap = widths[at] - displayWidth(row[at]) + 2;
            } else if (widths[at] > 0) {
                gap += widths[at] + 2;
            }
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (std::size_t at = 0; at < parts.size(); ++at) {
        if (at > 0) out += separator;
        out += parts[at];
    }
    return out;
}

}  // namespace btnode::cli
