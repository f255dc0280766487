#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/host/Object.h"

/// An immutable string of bytes; equality is exact and case-sensitive.
class String final : public RefCount {
public:
    static Ref<String> create(std::string_view text);
    static Ref<String> create(std::string&& text);
    /// Of a C string; empty for null.
    static Ref<String> create(const char* text) { return create(text ? std::string_view(text) : std::string_view()); }

    std::string_view view() const noexcept { return text_; }
    const char* cstr() const noexcept { return text_.c_str(); }
    std::size_t length() const noexcept { return text_.size(); }

    bool equals(std::string_view other) const noexcept { return text_ == other; }
    bool equals(const Ref<String>& other) const noexcept { return other && text_ == other->text_; }

    /// Position of the first (last) occurrence of the pattern; kNone when there is none.
    static constexpr std::size_t kNone = std::string_view::npos;
    std::size_t find(std::string_view pattern) const noexcept { return text_.find(pattern); }
    std::size_t findLast(std::string_view pattern) const noexcept { return text_.rfind(pattern); }
    /// The part from `begin` (beyond the end: empty) with at most `count` bytes.
    Ref<String> substring(std::size_t begin, std::size_t count = kNone) const;

private:
    explicit String(std::string text) : text_(std::move(text)) {}
    ~String() override = default;

    const std::string text_;
};

/// The text of a string reference; empty for null.
inline std::string_view viewOf(const Ref<String>& text) noexcept {
    return text ? text->view() : std::string_view();
}
