#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// UTF-8 as Unicode defines it: no overlong forms, no surrogates, nothing above U+10FFFF.
class Utf8 {
public:
    struct Character {
        char32_t code;
        std::size_t length;  ///< in bytes; 0: the text does not begin with a well-formed character
    };

    /// The first character of a text that is not empty.
    static Character first(std::string_view text) noexcept;
};
