#include "simulator/ValueText.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdlib>
#include <limits>

namespace Simulator {

namespace {

constexpr int kMaximumDepth = 64;  // D-Bus allows 32 arrays and 32 structures inside each other
constexpr std::string_view kSeparators = ",:[](){} \t";

/// Reads values of known types from a text, remembering the first thing that is wrong with it.
class Reader {
public:
    Reader(std::string_view text, std::string& error) : text_(text), error_(error) {}

    /// `isWhole`: the value reaches to the end of the text.
    std::optional<Value> value(const std::string& signature, int depth, bool isWhole);
    bool atEnd() {
        skipBlanks();
        return position_ == text_.size();
    }
    std::nullopt_t fail(const std::string& reason) {
        if (error_.empty()) error_ = fmt::format("{} at character {} of '{}'", reason, position_ + 1, text_);
        return std::nullopt;
    }

private:
    void skipBlanks() {
        while (position_ < text_.size() && (text_[position_] == ' ' || text_[position_] == '\t')) ++position_;
    }
    bool accept(char wanted) {
        skipBlanks();
        if (position_ == text_.size() || text_[position_] != wanted) return false;
        ++position_;
        return true;
    }
    std::optional<std::string> word(bool isWhole);
    std::optional<std::string> quoted();
    std::optional<Value> number(const std::string& signature);
    std::optional<Value> array(const std::string& signature, int depth);
    std::optional<Value> members(const std::string& signature, int depth);
    std::optional<Value> variant(int depth, bool isWhole);

    std::string_view text_;
    std::size_t position_ = 0;
    std::string& error_;
};

constexpr std::string_view kBasicTypes = "ybnqiuxtdsog";

/// The length of the first single complete type of the signature, 0 when it does not start with one.
std::size_t firstType(std::string_view signature) {
    if (signature.empty()) return 0;
    if (signature[0] == 'v' || kBasicTypes.find(signature[0]) != kBasicTypes.npos) return 1;
    if (signature.starts_with("a{")) {
        if (signature.size() < 5 || kBasicTypes.find(signature[2]) == kBasicTypes.npos) return 0;
        const std::size_t value = firstType(signature.substr(3));
        return value && signature.size() > 3 + value && signature[3 + value] == '}' ? value + 4 : 0;
    }
    if (signature[0] == 'a') {
        const std::size_t element = firstType(signature.substr(1));
        return element ? element + 1 : 0;
    }
    if (signature[0] != '(') return 0;
    std::size_t length = 1;
    while (length < signature.size() && signature[length] != ')') {
        const std::size_t member = firstType(signature.substr(length));
        if (!member) return 0;
        length += member;
    }
    return length > 1 && length < signature.size() ? length + 1 : 0;
}

bool isOneType(std::string_view signature) {
    constexpr std::size_t kMaximumSignature = 255;  // D-Bus: the length is one byte
    return signature.size() <= kMaximumSignature && !signature.empty() && firstType(signature) == signature.size();
}

std::optional<std::string> Reader::word(bool isWhole) {
    skipBlanks();
    if (position_ < text_.size() && text_[position_] == '"') return quoted();
    // Only a value that is the whole text may hold separators without quotes, as an object path or an address does.
    const auto end = isWhole ? text_.size() : std::min(text_.find_first_of(kSeparators, position_), text_.size());
    std::string result(text_.substr(position_, end - position_));
    position_ = end;
    return result;
}

std::optional<std::string> Reader::quoted() {
    std::string result;
    for (++position_; position_ < text_.size(); ++position_) {
        const char letter = text_[position_];
        if (letter == '"') {
            ++position_;
            return result;
        }
        if (letter != '\\') {
            result += letter;
            continue;
        }
        if (++position_ == text_.size()) break;
        switch (text_[position_]) {
            case 'n':
                result += '\n';
                break;
            case 'r':
                result += '\r';
                break;
            case 't':
                result += '\t';
                break;
            case 'x': {
                unsigned code = 0;
                const char* first = text_.data() + position_ + 1;
                const char* last = text_.data() + std::min(position_ + 3, text_.size());
                const auto [end, failure] = std::from_chars(first, last, code, 16);
                if (failure != std::errc() || end != first + 2) return fail("two hexadecimal digits are missing");
                result += static_cast<char>(code);
                position_ += 2;
                break;
            }
            default:
                result += text_[position_];
        }
    }
    return fail("the closing quotation mark is missing");
}

template <typename Number>
bool inRange(std::int64_t number) {
    return number >= std::int64_t{std::numeric_limits<Number>::min()} &&
           number <= std::int64_t{std::numeric_limits<Number>::max()};
}

std::optional<Value> Reader::number(const std::string& signature) {
    const auto text = word(false);
    if (!text || text->empty()) return fail("a number is missing");
    const bool isNegative = text->front() == '-';
    const bool isHexadecimal = !isNegative && text->starts_with("0x");
    const char* first = text->data() + (isHexadecimal ? 2 : isNegative ? 1 : 0);
    const char* last = text->data() + text->size();
    std::uint64_t magnitude = 0;
    const auto [end, failure] = std::from_chars(first, last, magnitude, isHexadecimal ? 16 : 10);
    if (failure != std::errc() || end != last) return fail("'" + *text + "' is no integer");
    const std::uint64_t bits = isNegative ? 0 - magnitude : magnitude;
    const auto number = static_cast<std::int64_t>(bits);
    const bool fitsSigned = isNegative ? number <= 0 : number >= 0;
    bool fits = false;
    switch (signature[0]) {
        case 'y':
            fits = fitsSigned && inRange<std::uint8_t>(number);
            break;
        case 'n':
            fits = fitsSigned && inRange<std::int16_t>(number);
            break;
        case 'q':
            fits = fitsSigned && inRange<std::uint16_t>(number);
            break;
        case 'i':
            fits = fitsSigned && inRange<std::int32_t>(number);
            break;
        case 'u':
            fits = fitsSigned && inRange<std::uint32_t>(number);
            break;
        case 'x':
            fits = fitsSigned;
            break;
        default:
            fits = !isNegative || magnitude == 0;
            break;
    }
    if (!fits) return fail("'" + *text + "' does not fit type '" + signature + "'");
    return Value(signature, bits);
}

std::optional<Value> Reader::array(const std::string& signature, int depth) {
    const std::string element = signature.substr(1);
    const bool isDictionary = element[0] == '{';
    const char closing = isDictionary ? '}' : ']';
    if (!accept(isDictionary ? '{' : '[')) return fail(fmt::format("'{}' is missing", isDictionary ? '{' : '['));
    Value::List elements;
    while (!accept(closing)) {
        if (!elements.empty() && !accept(',')) return fail("',' is missing");
        auto next = isDictionary ? members(element, depth + 1) : value(element, depth + 1, false);
        if (!next) return std::nullopt;
        elements.push_back(std::move(*next));
    }
    return Value(signature, std::move(elements));
}

/// The members of a structure, in brackets, or of a dictionary entry, with a colon between the two.
std::optional<Value> Reader::members(const std::string& signature, int depth) {
    const bool isEntry = signature[0] == '{';
    if (!isEntry && !accept('(')) return fail("'(' is missing");
    const std::string inside = signature.substr(1, signature.size() - 2);
    Value::List elements;
    for (std::size_t start = 0; start < inside.size();) {
        const std::size_t length = firstType(std::string_view(inside).substr(start));
        if (!elements.empty() && !accept(isEntry ? ':' : ','))
            return fail(isEntry ? "':' is missing" : "',' is missing");
        auto next = value(inside.substr(start, length), depth + 1, false);
        if (!next) return std::nullopt;
        elements.push_back(std::move(*next));
        start += length;
    }
    if (!isEntry && !accept(')')) return fail("')' is missing");
    return Value(signature, std::move(elements));
}

std::optional<Value> Reader::variant(int depth, bool isWhole) {
    skipBlanks();
    const auto colon = text_.find(':', position_);
    const std::string signature(text_.substr(position_, colon == text_.npos ? text_.npos : colon - position_));
    if (colon == text_.npos || !isOneType(signature))
        return fail("a variant needs its type and a colon first, as u:17");
    position_ = colon + 1;
    auto inner = value(signature, depth + 1, isWhole);
    if (!inner) return std::nullopt;
    return Value::variant(std::move(*inner));
}

std::optional<Value> Reader::value(const std::string& signature, int depth, bool isWhole) {
    if (depth > kMaximumDepth) return fail("nested too deeply");
    switch (signature[0]) {
        case 'a':
            return array(signature, depth);
        case '(':
            return members(signature, depth);
        case 'v':
            return variant(depth, isWhole);
        case 's':
        case 'o':
        case 'g': {
            auto text = word(isWhole);
            if (!text) return std::nullopt;
            return Value(signature, std::move(*text));
        }
        case 'b': {
            const auto text = word(false);
            if (text != "true" && text != "false") return fail("neither true nor false");
            return Value::boolean(text == "true");
        }
        case 'd': {
            const auto text = word(false);
            char* end = nullptr;
            const double real = text ? std::strtod(text->c_str(), &end) : 0.0;
            if (!text || text->empty() || *end != '\0') return fail("no number");
            return Value(signature, real);
        }
        default:
            return number(signature);
    }
}

void writeQuoted(std::string& out, const std::string& text) {
    out += '"';
    for (const char letter : text) {
        const auto code = static_cast<unsigned char>(letter);
        if (letter == '"' || letter == '\\') {
            out += '\\';
            out += letter;
        } else if (code < 0x20 || code == 0x7f) {
            out += fmt::format("\\x{:02x}", code);
        } else {
            out += letter;
        }
    }
    out += '"';
}

void write(std::string& out, const Value& value);

void writeAll(std::string& out, const Value::List& values, std::string_view separator) {
    for (std::size_t index = 0; index < values.size(); ++index) {
        if (index) out += separator;
        write(out, values[index]);
    }
}

void write(std::string& out, const Value& value) {
    switch (value.type()) {
        case 's':
        case 'o':
        case 'g':
            writeQuoted(out, value.text());
            break;
        case 'b':
            out += value.isTrue() ? "true" : "false";
            break;
        case 'd':
            out += fmt::format("{}", value.real());
            break;
        case 'n':
        case 'i':
        case 'x':
            out += fmt::format("{}", static_cast<std::int64_t>(value.number()));
            break;
        case '(':
            out += '(';
            writeAll(out, value.elements(), ", ");
            out += ')';
            break;
        case '{':
            writeAll(out, value.elements(), ": ");
            break;
        case 'v':
            out += value.inner().signature() + ":";
            write(out, value.inner());
            break;
        case 'a': {
            const bool isDictionary = value.signature()[1] == '{';
            out += isDictionary ? '{' : '[';
            writeAll(out, value.elements(), ", ");
            out += isDictionary ? '}' : ']';
            break;
        }
        default:
            out += fmt::format("{}", value.number());
    }
}

}  // namespace

std::optional<Value> parseValue(const std::string& signature, std::string_view text, std::string& error) {
    error.clear();
    Reader reader(text, error);
    if (!isOneType(signature)) return reader.fail("'" + signature + "' is not one complete type");
    auto value = reader.value(signature, 0, true);
    if (value && !reader.atEnd()) return reader.fail("more than one value");
    return value;
}

std::vector<std::string> completeTypes(std::string_view signature) {
    std::vector<std::string> types;
    while (!signature.empty()) {
        const std::size_t length = firstType(signature);
        if (!length) return {};
        types.emplace_back(signature.substr(0, length));
        signature.remove_prefix(length);
    }
    return types;
}

std::string toText(const Value& value) {
    std::string out;
    write(out, value);
    return out;
}

std::string toText(const Value::List& values) {
    std::string out;
    writeAll(out, values, ", ");
    return out;
}

}  // namespace Simulator
