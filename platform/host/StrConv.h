#pragma once

#include <cstdint>
#include <string_view>

#include "platform/host/String.h"

/// Numbers as text and back.
class StrConv {
public:
    /// Decimal, or hexadecimal after "0x" or "0X"; the whole text must be digits. False (and `value` untouched) for
    /// anything else: null or empty text, signs, blanks, more than 32 bits.
    static bool num(const Ref<String>& text, unsigned int* value) noexcept;
    /// The whole text as digits of `base` (2 to 16; letters of either case), without prefix. False as above, and for
    /// other bases.
    static bool num(std::string_view text, unsigned int* value, unsigned base) noexcept;
    /// Decimal text.
    static Ref<String> str(std::uint64_t value);
};

/// What is done to whole strings.
class StringUtil {
public:
    /// Without white space (blank, \t, \n, \v, \f, \r) at both ends; empty for null.
    static Ref<String> trim(const Ref<String>& text);
};
