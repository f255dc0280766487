#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace Fuzz {

/// Ends the program where something does not hold; libFuzzer keeps the input that led there.
inline void check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

/// A text in memory of exactly its size, so that a read past its end is seen.
class Exact {
public:
    explicit Exact(std::string_view text) : bytes_(text.begin(), text.end()) { bytes_.shrink_to_fit(); }
    std::string_view view() const { return {bytes_.data(), bytes_.size()}; }

private:
    std::vector<char> bytes_;
};

inline std::string_view viewOf(const std::uint8_t* data, std::size_t size) {
    return {static_cast<const char*>(static_cast<const void*>(data)), size};
}

}  // namespace Fuzz
