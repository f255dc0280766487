#include "platform/nodes/Json.h"

#include <algorithm>
#include <charconv>

#include "platform/host/Utf8.h"

namespace Services::Nodes {

namespace {

constexpr std::uint32_t kArray = UINT32_MAX;
/// Objects with more keys than this are checked for duplicates by sorting, at their end.
constexpr std::size_t kFewKeys = 16;
/// Memory that a reader keeps from one text to the next, per buffer.
constexpr std::size_t kKeptBytes = 4096;

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

int hexDigit(char c) noexcept {
    if (isDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void appendUtf8(std::string& out, char32_t code) {
    const auto put = [&out](char32_t bits) { out.push_back(static_cast<char>(bits)); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | (code >> 6));
        put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        put(0xE0 | (code >> 12));
        put(0x80 | ((code >> 6) & 0x3F));
        put(0x80 | (code & 0x3F));
    } else {
        put(0xF0 | (code >> 18));
        put(0x80 | ((code >> 12) & 0x3F));
        put(0x80 | ((code >> 6) & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

template <class T>
void clearKeepingLittle(T& container) {
    container.clear();
    if (container.capacity() * sizeof(typename T::value_type) > kKeptBytes) container.shrink_to_fit();
}

}  // namespace

void JsonReader::reset(std::string_view text) {
    text_ = text;
    at_ = begin_ = 0;
    value_ = {};
    expect_ = Expect::Value;
    failed_ = false;
    clearKeepingLittle(levels_);
    clearKeepingLittle(keys_);
    clearKeepingLittle(resolved_);
}

JsonReader::Token JsonReader::fail() noexcept {
    failed_ = true;
    return Token::Error;
}

void JsonReader::skipBlanks() noexcept {
    while (at_ < text_.size()) {
        const char c = text_[at_];
        if (c != ' ' && c != '\n' && c != '\t' && c != '\r') return;
        ++at_;
    }
}

JsonReader::Token JsonReader::next() {
    if (failed_) return Token::Error;
    skipBlanks();
    if (expect_ == Expect::Nothing) {
        begin_ = at_;
        return at_ == text_.size() ? Token::End : fail();
    }
    if (at_ == text_.size()) return fail();

    const char c = text_[at_];
    if (expect_ != Expect::Value) {  // the open object or array may end here
        const bool object = levels_.back() != kArray;
        if (c == (object ? '}' : ']')) return close();
        if (expect_ == Expect::CommaOrEnd) {
            if (c != ',') return fail();
            ++at_;
            skipBlanks();
            if (at_ == text_.size()) return fail();
        }
        return object ? readKey() : readValue();
    }
    return readValue();
}

bool JsonReader::skip(Token token) {
    if (token != Token::BeginObject && token != Token::BeginArray) return token != Token::Error;
    const std::size_t depth = levels_.size();
    while (levels_.size() >= depth) {
        if (next() == Token::Error) return false;
    }
    return true;
}

JsonReader::Token JsonReader::readValue() {
    begin_ = at_;
    switch (text_[at_]) {
        case '{':
            return open(true);
        case '[':
            return open(false);
        case '"': {
            const Token token = readString(Token::String);
            if (token != Token::Error) afterValue();
            return token;
        }
        case 't':
            return readWord("true", Token::True);
        case 'f':
            return readWord("false", Token::False);
        case 'n':
            return readWord("null", Token::Null);
        default:
            return readNumber();
    }
}

JsonReader::Token JsonReader::readKey() {
    begin_ = at_;
    if (text_[at_] != '"' || readString(Token::Key) == Token::Error || !noteKey()) return fail();
    skipBlanks();
    if (at_ == text_.size() || text_[at_] != ':') return fail();
    ++at_;
    expect_ = Expect::Value;
    return Token::Key;
}

JsonReader::Token JsonReader::open(bool object) {
    ++at_;
    levels_.push_back(object ? static_cast<std::uint32_t>(keys_.size()) : kArray);
    expect_ = object ? Expect::KeyOrEnd : Expect::ValueOrEnd;
    return object ? Token::BeginObject : Token::BeginArray;
}

JsonReader::Token JsonReader::close() {
    begin_ = at_++;
    const std::uint32_t firstKey = levels_.back();
    const bool object = firstKey != kArray;
    if (object) {
        if (!keysDiffer()) return fail();
        keys_.resize(firstKey);
    }
    levels_.pop_back();
    afterValue();
    return object ? Token::EndObject : Token::EndArray;
}

void JsonReader::afterValue() noexcept {
    expect_ = levels_.empty() ? Expect::Nothing : Expect::CommaOrEnd;
}

bool JsonReader::noteKey() {
    const std::size_t first = levels_.back();
    const std::size_t compared = std::min(keys_.size(), first + kFewKeys);
    for (std::size_t at = first; at < compared; ++at) {
        if (keys_[at] == value_) return false;
    }
    keys_.push_back(value_);
    return true;
}

bool JsonReader::keysDiffer() {
    const auto first = keys_.begin() + levels_.back();
    if (static_cast<std::size_t>(keys_.end() - first) <= kFewKeys) return true;
    std::sort(first, keys_.end());
    return std::adjacent_find(first, keys_.end()) == keys_.end();
}

JsonReader::Token JsonReader::readString(Token kind) {
    std::size_t plain = ++at_;  // begin of the part that was not copied yet
    bool copied = false;
    std::size_t start = 0;
    for (;;) {
        if (at_ == text_.size()) return fail();
        const auto byte = static_cast<unsigned char>(text_[at_]);
        if (byte == '"') break;
        if (byte == '\\') {
            if (!copied) {
                // Resolved text is never longer than the message, so this is the only allocation of a message.
                if (resolved_.capacity() < text_.size()) resolved_.reserve(text_.size());
                start = resolved_.size();
                copied = true;
            }
            resolved_.append(text_.substr(plain, at_ - plain));
            if (!readEscape()) return fail();
            plain = at_;
        } else if (byte < 0x20) {
            return fail();
        } else if (byte < 0x80) {
            ++at_;
        } else {
            const std::size_t length = Utf8::first(text_.substr(at_, 4)).length;
            if (length == 0) return fail();
            at_ += length;
        }
    }
    const std::string_view last = text_.substr(plain, at_ - plain);
    ++at_;
    if (copied) {
        resolved_.append(last);
        value_ = std::string_view(resolved_).substr(start);
    } else {
        value_ = last;
    }
    return kind;
}

bool JsonReader::readEscape() {
    const auto unit = [this](char32_t& code) {
        if (text_.size() - at_ < 4) return false;
        code = 0;
        for (int digit = 0; digit < 4; ++digit) {
            const int value = hexDigit(text_[at_++]);
            if (value < 0) return false;
            code = (code << 4) | static_cast<char32_t>(value);
        }
        return true;
    };

    if (text_.size() - at_ < 2) return false;
    const char kind = text_[at_ + 1];
    at_ += 2;
    static constexpr std::string_view kKinds = "\"\\/bfnrt";
    static constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (const std::size_t found = kKinds.find(kind); found != std::string_view::npos) {
        resolved_.push_back(kMeanings[found]);
        return true;
    }
    char32_t code = 0;
    if (kind != 'u' || !unit(code)) return false;
    if (code >= 0xDC00 && code <= 0xDFFF) return false;  // the second half of a pair alone is no character
    if (code >= 0xD800 && code <= 0xDBFF) {
        char32_t low = 0;
        if (text_.substr(at_, 2) != "\\u") return false;
        at_ += 2;
        if (!unit(low) || low < 0xDC00 || low > 0xDFFF) return false;
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    appendUtf8(resolved_, code);
    return true;
}

JsonReader::Token JsonReader::readNumber() {
    const auto digits = [this] {
        const std::size_t first = at_;
        while (at_ < text_.size() && isDigit(text_[at_])) ++at_;
        return at_ > first;
    };
    const auto take = [this](std::string_view any) {
        if (at_ == text_.size() || any.find(text_[at_]) == std::string_view::npos) return false;
        ++at_;
        return true;
    };

    take("-");
    if (!take("0") && !digits()) return fail();
    if (take(".") && !digits()) return fail();
    if (take("eE")) {
        take("+-");
        if (!digits()) return fail();
    }
    value_ = text_.substr(begin_, at_ - begin_);
    afterValue();
    return Token::Number;
}

JsonReader::Token JsonReader::readWord(std::string_view word, Token kind) {
    if (text_.substr(at_, word.size()) != word) return fail();
    at_ += word.size();
    afterValue();
    return kind;
}

bool JsonReader::integer(std::uint64_t& value) const noexcept {
    const char* const first = value_.data();
    const char* const last = first + value_.size();
    if (value_.front() != '-') {
        const auto [end, error] = std::from_chars(first, last, value);
        return error == std::errc() && end == last;
    }
    std::int64_t negative = 0;
    const auto [end, error] = std::from_chars(first, last, negative);
    if (error != std::errc() || end != last) return false;
    value = static_cast<std::uint64_t>(negative);
    return true;
}

namespace {

/// How many bytes of an ill-formed beginning one replacement character stands for: as many as could have begun a
/// character, at least one.
std::size_t maximalPart(std::string_view text) noexcept {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(0);
    if (lead < 0xC2 || lead > 0xF4 || text.size() < 2) return 1;
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < low || byte(1) > high) return 1;
    const std::size_t wanted = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    std::size_t length = 2;
    while (length < wanted && length < text.size() && (byte(length) & 0xC0) == 0x80) ++length;
    return length;
}

/// The escape of a byte below 0x20, of a quotation mark or of a backslash.
void appendEscape(std::string& out, char c) {
    static constexpr std::string_view kMeanings = "\"\\\b\f\n\r\t";
    static constexpr std::string_view kKinds = "\"\\bfnrt";
    static constexpr std::string_view kDigits = "0123456789abcdef";
    out.push_back('\\');
    if (const std::size_t found = kMeanings.find(c); found != std::string_view::npos) {
        out.push_back(kKinds[found]);
        return;
    }
    const auto byte = static_cast<unsigned char>(c);
    out.append("u00");
    out.push_back(kDigits[byte >> 4]);
    out.push_back(kDigits[byte & 0xF]);
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
    out.push_back('"');
    std::size_t plain = 0;  // begin of the part that was not appended yet
    const auto appendPlain = [&](std::size_t end) { out.append(text.substr(plain, end - plain)); };
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x20 || byte == '"' || byte == '\\') {
            appendPlain(at);
            appendEscape(out, text[at]);
            plain = ++at;
        } else if (byte < 0x80) {
            ++at;
        } else if (const std::size_t length = Utf8::first(text.substr(at)).length; length != 0) {
            at += length;
        } else {
            appendPlain(at);
            out.append("\xEF\xBF\xBD");
            at += maximalPart(text.substr(at));
            plain = at;
        }
    }
    appendPlain(text.size());
    out.push_back('"');
}

}  // namespace Services::Nodes
