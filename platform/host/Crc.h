#pragma once

#include <cstdint>
#include <variant>

#include <boost/crc.hpp>

#include "platform/host/String.h"

namespace Libraries::Filter::CRC {

/// Which polynomial. Type 0 of CRC32 is the one of IEEE 802.3 (zlib's), type 0 of CRC64 the one of ECMA-182 as xz uses
/// it.
enum class Type : std::uint32_t { Default = 0 };

/// Checksum of 32 bits of what is written into it. One thread at a time.
class CRC32 final : public RefCount {
public:
    /// `reflected`: bits of input and result in reverse order, as both default variants have it.
    /// Null for an unknown type.
    static Ref<CRC32> create(Type type, bool reflected);
    /// Adds bytes; how they are split over calls makes no difference.
    void write(std::string_view bytes);
    /// Nothing is left to be done at the end of these checksums; callers need not know that.
    void finish() {}
    /// The checksum of what was written so far; the upper 32 bits are zero.
    std::uint64_t value() const;

private:
    explicit CRC32(bool reflected);
    ~CRC32() override = default;
    template <bool kReflected>
    using Crc = boost::crc_optimal<32, 0x04C11DB7u, 0xFFFFFFFFu, 0xFFFFFFFFu, kReflected, kReflected>;
    using State = std::variant<Crc<true>, Crc<false>>;
    State state_;
};

/// Checksum of 64 bits, else as CRC32.
class CRC64 final : public RefCount {
public:
    static Ref<CRC64> create(Type type, bool reflected);
    void write(std::string_view bytes);
    std::uint64_t value() const;

private:
    explicit CRC64(bool reflected);
    ~CRC64() override = default;
    template <bool kReflected>
    using Crc =
        boost::crc_optimal<64, 0x42F0E1EBA9EA3693u, ~std::uint64_t{0}, ~std::uint64_t{0}, kReflected, kReflected>;
    using State = std::variant<Crc<true>, Crc<false>>;
    State state_;
};

}  // namespace Libraries::Filter::CRC
