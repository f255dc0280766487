#include "platform/host/StrConv.h"

#include <array>
#include <charconv>
#include <limits>

namespace {
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
}

bool StrConv::num(const Ref<String>& text, unsigned int* value) noexcept {
    const std::string_view digits = viewOf(text);
    if (digits.starts_with("0x") || digits.starts_with("0X")) return num(digits.substr(2), value, 16);
    return num(digits, value, 10);
}

bool StrConv::num(std::string_view text, unsigned int* value, unsigned base) noexcept {
    if (base < 2 || base > 16) return false;
    unsigned int parsed = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, parsed, static_cast<int>(base));
    if (error != std::errc() || stop != end) return false;
    *value = parsed;
    return true;
}

Ref<String> StrConv::str(std::uint64_t value) {
    std::array<char, std::numeric_limits<std::uint64_t>::digits10 + 1> digits;
    const auto result = std::to_chars(digits.begin(), digits.end(), value);
    return String::create(std::string_view(digits.begin(), result.ptr));
}

Ref<String> StringUtil::trim(const Ref<String>& text) {
    const std::string_view all = viewOf(text);
    const std::size_t first = all.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) return String::create(std::string_view());
    const std::size_t last = all.find_last_not_of(kWhiteSpace);
    return String::create(all.substr(first, last - first + 1));
}
