#include "client/cli/Arguments.h"

#include <boost/json/parse.hpp>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace btnode::cli {

namespace {

Error invalid(std::string what) {
    return {ErrorKind::Invalid, std::move(what), "'btnode do --help' has the rules."};
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string_view trimmed(std::string_view text) {
    while (text.starts_with(' ')) text.remove_prefix(1);
    while (text.ends_with(' ')) text.remove_suffix(1);
    return text;
}

/// Whether the text is written like a number; its value may still be too large.
bool looksLikeNumber(std::string_view text) {
    if (text.starts_with('-')) text.remove_prefix(1);
    if (text.starts_with("0x") || text.starts_with("0X")) {
        return text.size() > 2 && text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos;
    }
    // 0000 is a pincode rather than a number.
    if (text.size() > 1 && text.starts_with('0')) return false;
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<std::int64_t> number(std::string_view text) {
    std::string digits(text);
    int base = 10;
    const std::size_t sign = text.starts_with('-') ? 1 : 0;
    if (text.substr(sign).starts_with("0x") || text.substr(sign).starts_with("0X")) {
        digits.erase(sign, 2);
        base = 16;
    }
    std::int64_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, failure] = std::from_chars(digits.data(), end, value, base);
    if (failure != std::errc() || stop != end) return std::nullopt;
    return value;
}

class Parser {
public:
    explicit Parser(std::string_view word) : text_(word) {}

    /// The whole word as one parameter.
    Result<Value> word() {
        Result<Value> value = parameter(false, 1);
        if (value && at_ != text_.size()) {
            return invalid("'" + std::string(text_) + "': there is something behind the value");
        }
        return value;
    }

private:
    Result<Value> parameter(bool inList, int depth) {
        std::optional<std::string> name = parameterName();
        Result<Value> read = value(inList, depth);
        if (read) read->name = std::move(name);
        return read;
    }

    std::optional<std::string> parameterName() {
        std::size_t end = at_;
        if (end == text_.size() || !isLetter(text_[end])) return std::nullopt;
        while (end < text_.size() &&
               (isLetter(text_[end]) || isDigit(text_[end]) || text_[end] == '-' || text_[end] == '.')) {
            ++end;
        }
        if (end == text_.size() || text_[end] != '=') return std::nullopt;
        std::string name(text_.substr(at_, end - at_));
        at_ = end + 1;
        return name;
    }

    Result<Value> value(bool inList, int depth) {
        if (at_ < text_.size() && text_[at_] == '[') return list(depth);
        if (at_ < text_.size() && text_[at_] == '"') return quoted();
        std::string_view bare = text_.substr(at_);
        if (inList) bare = bare.substr(0, bare.find_first_of(",]"));
        at_ += bare.size();
        if (inList) bare = trimmed(bare);
        return ofText(bare);
    }

    Result<Value> ofText(std::string_view bare) const {
        if (bare.starts_with("s:")) return Value::of({}, std::string(bare.substr(2)));
        const bool marked = bare.starts_with("i:");
        if (marked) bare.remove_prefix(2);
        if (marked || looksLikeNumber(bare)) {
            const std::optional<std::int64_t> read = number(bare);
            if (read) return Value::of({}, *read);
            return invalid("'" + std::string(bare) + "' is no integer of 64 bits" +
                           (marked ? "" : "; s:" + std::string(bare) + " is the string"));
        }
        if (bare == "none") return Value::none();
        return Value::of({}, std::string(bare));
    }

    Result<Value> quoted() {
        std::size_t end = at_ + 1;
        while (end < text_.size() && text_[end] != '"') end += text_[end] == '\\' ? 2U : 1U;
        if (end >= text_.size()) return invalid("'" + std::string(text_) + "': the closing quote is missing");
        const std::string_view literal = text_.substr(at_, end + 1 - at_);
        at_ = end + 1;
        boost::json::error_code failure;
        const boost::json::value parsed = boost::json::parse({literal.data(), literal.size()}, failure);
        if (failure || !parsed.is_string()) return invalid("'" + std::string(literal) + "' is no string of JSON");
        const boost::json::string& content = parsed.get_string();
        return Value::of({}, std::string(content.data(), content.size()));
    }

    Result<Value> list(int depth) {
        if (depth > kMaxDepth) return invalid("values are nested deeper than " + std::to_string(kMaxDepth));
        const Error unclosed = invalid("'" + std::string(text_) + "': the closing ] is missing");
        Value made = Value::list({}, {});
        ++at_;
        skipBlanks();
        if (at_ < text_.size() && text_[at_] == ']') {
            ++at_;
            return made;
        }
        for (;;) {
            skipBlanks();
            Result<Value> item = parameter(true, depth + 1);
            if (!item) return item;
            made.children.push_back(std::move(*item));
            skipBlanks();
            if (at_ == text_.size()) return unclosed;
            const char mark = text_[at_++];
            if (mark == ']') return made;
            if (mark != ',') return invalid("'" + std::string(text_) + "': a comma is missing in the list");
        }
    }

    void skipBlanks() {
        while (at_ < text_.size() && text_[at_] == ' ') ++at_;
    }

    const std::string_view text_;
    std::size_t at_ = 0;
};

Value makeAction(std::string name, std::vector<Value> parameters) {
    if (parameters.empty()) return Value::none(std::move(name));
    if (parameters.size() == 1 && !parameters.front().name) {
        Value own = std::move(parameters.front());
        own.name = std::move(name);
        return own;
    }
    return Value::list(std::move(name), std::move(parameters));
}

}  // namespace

Result<std::vector<Value>> parseActions(const std::vector<std::string>& words) {
    std::vector<Value> actions;
    std::size_t at = 0;
    do {
        if (at == words.size() || words[at].empty() || words[at] == "+")
            return invalid("the name of an action is missing");
        std::string name = words[at++];
        std::vector<Value> parameters;
        while (at < words.size() && words[at] != "+") {
            Result<Value> parameter = Parser(words[at++]).word();
            if (!parameter) return parameter.error();
            parameters.push_back(std::move(*parameter));
        }
        actions.push_back(makeAction(std::move(name), std::move(parameters)));
        if (depthOf(actions.back()) > kMaxDepth) {
            return invalid("values are nested deeper than " + std::to_string(kMaxDepth));
        }
    } while (at++ < words.size());
    return actions;
}

}  // namespace btnode::cli
