#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Services::Nodes {

/// Reads one JSON text token by token, as strictly as RFC 8259 allows: UTF-8 without a byte-order mark, no duplicate
/// key in any object, nothing behind the value. Integers keep all 64 bits. Nesting costs four bytes a level and no
/// stack, so a hostile text of any depth is read to its end: a value that is nested too deep is an error of the
/// parameters, not of the text. (This is why no JSON library is used here: they recurse, or give up at a depth, or keep
/// the last of two equal keys without a word.)
///
/// Reusable: reset() keeps the memory. Views returned by text() stay valid until the next reset(), as long as the text
/// given to it does.
class JsonReader {
public:
    enum class Token : std::uint8_t {
        Error,  ///< not JSON; every later call gives the same
        End,
        BeginObject,
        EndObject,
        BeginArray,
        EndArray,
        Key,
        String,
        Number,
        True,
        False,
        Null,
    };

    void reset(std::string_view text);
    Token next();
    /// Reads to the end of the value that begins with `token`, which next() just gave. False on an error.
    bool skip(Token token);

    /// Of a Key or String, with escapes resolved; of a Number, as it stands.
    std::string_view text() const noexcept { return value_; }
    /// The number as a 64-bit pattern: -2^63 to 2^64-1. False for fractions, exponents and anything outside.
    bool integer(std::uint64_t& value) const noexcept;
    /// Where the last token begins and ends in the text.
    std::size_t begin() const noexcept { return begin_; }
    std::size_t end() const noexcept { return at_; }

private:
    enum class Expect : std::uint8_t { Value, ValueOrEnd, KeyOrEnd, CommaOrEnd, Nothing };

    Token fail() noexcept;
    Token readValue();
    Token readKey();
    Token open(bool object);
    Token close();
    Token readString(Token kind);
    bool readEscape();
    Token readNumber();
    Token readWord(std::string_view word, Token kind);
    void afterValue() noexcept;
    void skipBlanks() noexcept;
    bool noteKey();
    bool keysDiffer();

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t begin_ = 0;
    std::string_view value_;
    Expect expect_ = Expect::Nothing;
    bool failed_ = false;
    /// One entry for each open object or array: where the object's keys begin in keys_, or kArray.
    std::vector<std::uint32_t> levels_;
    std::vector<std::string_view> keys_;
    /// Strings that had escapes; never grows past its reserve, so that views into it stay.
    std::string resolved_;
};

/// Appends `text` as a JSON string. What is not UTF-8 becomes the replacement character, one for each maximal part of
/// an ill-formed sequence.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace Services::Nodes
