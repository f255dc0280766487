#include "platform/host/Utf8.h"

Utf8::Character Utf8::first(std::string_view text) noexcept {
    constexpr Character kMalformed{0, 0};
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };

    const unsigned char lead = byte(0);
    if (lead < 0x80) return {lead, 1};
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return kMalformed;

    char32_t code = lead & (0xFFu >> (length + 1));
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0) != 0x80) return kMalformed;
        code = (code << 6) | (byte(at) & 0x3Fu);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (overlong || surrogate || code > 0x10FFFF) return kMalformed;
    return {code, length};
}
