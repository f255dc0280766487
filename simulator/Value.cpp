#include "simulator/Value.h"

#include <algorithm>

namespace Simulator {

namespace {

const std::string kNoText;
const Value::List kNoElements;

std::optional<Value> readBasic(sd_bus_message* message, char type) {
    union {
        std::uint8_t byte;
        int boolean;
        std::int16_t int16;
        std::uint16_t uint16;
        std::int32_t int32;
        std::uint32_t uint32;
        std::int64_t int64;
        std::uint64_t uint64;
        double real;
        const char* text;
    } raw{};
    if (type == 'h' || sd_bus_message_read_basic(message, type, &raw) <= 0) return std::nullopt;
    const std::string signature(1, type);
    const auto extended = [&](std::int64_t number) { return Value(signature, static_cast<std::uint64_t>(number)); };
    switch (type) {
        case 'y':
            return Value(signature, std::uint64_t{raw.byte});
        case 'b':
            return Value::boolean(raw.boolean != 0);
        case 'n':
            return extended(raw.int16);
        case 'q':
            return Value(signature, std::uint64_t{raw.uint16});
        case 'i':
            return extended(raw.int32);
        case 'u':
            return Value(signature, std::uint64_t{raw.uint32});
        case 'x':
            return extended(raw.int64);
        case 't':
            return Value(signature, raw.uint64);
        case 'd':
            return Value(signature, raw.real);
        default:
            return Value(signature, std::string(raw.text));
    }
}

/// sd-bus names the containers 'r' and 'e' where a signature has "(...)" and "{...}".
std::string containerSignature(char type, const std::string& contents) {
    switch (type) {
        case 'a':
            return "a" + contents;
        case 'r':
            return "(" + contents + ")";
        case 'e':
            return "{" + contents + "}";
        default:
            return "v";
    }
}

}  // namespace

Value Value::strings(const std::vector<std::string>& values) {
    List elements;
    elements.reserve(values.size());
    for (const auto& value : values) elements.push_back(string(value));
    return {"as", std::move(elements)};
}

Value Value::variant(Value inner) {
    List elements;
    elements.push_back(std::move(inner));
    return {"v", std::move(elements)};
}

Value Value::structure(List members) {
    std::string signature = "(";
    for (const auto& member : members) signature += member.signature();
    return {signature + ")", std::move(members)};
}

Value Value::array(const std::string& elementSignature, List elements) {
    return {"a" + elementSignature, std::move(elements)};
}

Value Value::entry(Value key, Value value) {
    std::string signature = "{" + key.signature() + value.signature() + "}";
    List elements;
    elements.push_back(std::move(key));
    elements.push_back(std::move(value));
    return {std::move(signature), std::move(elements)};
}

const std::string& Value::text() const {
    const auto* text = std::get_if<std::string>(&content_);
    return text ? *text : kNoText;
}

std::uint64_t Value::number() const {
    const auto* number = std::get_if<std::uint64_t>(&content_);
    return number ? *number : 0;
}

double Value::real() const {
    const auto* real = std::get_if<double>(&content_);
    return real ? *real : 0.0;
}

const Value::List& Value::elements() const {
    const auto* elements = std::get_if<List>(&content_);
    return elements ? *elements : kNoElements;
}

std::optional<Value> Value::readFrom(sd_bus_message* message) {
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(message, &type, &contents) <= 0) return std::nullopt;
    if (!contents) return readBasic(message, type);
    const std::string inside = contents;  // the pointer does not outlive the next step into the message
    if (sd_bus_message_enter_container(message, type, inside.c_str()) <= 0) return std::nullopt;
    auto elements = readAll(message);
    if (!elements || sd_bus_message_exit_container(message) < 0) return std::nullopt;
    return Value(containerSignature(type, inside), std::move(*elements));
}

std::optional<Value::List> Value::readAll(sd_bus_message* message) {
    List values;
    while (sd_bus_message_at_end(message, 0) == 0) {
        auto value = readFrom(message);
        if (!value) return std::nullopt;
        values.push_back(std::move(*value));
    }
    return values;
}

int Value::appendTo(sd_bus_message* message) const {
    switch (type()) {
        case 'y': {
            const auto byte = static_cast<std::uint8_t>(number());
            return sd_bus_message_append_basic(message, 'y', &byte);
        }
        case 'b': {
            const int boolean = isTrue() ? 1 : 0;
            return sd_bus_message_append_basic(message, 'b', &boolean);
        }
        case 'n':
        case 'q': {
            const auto half = static_cast<std::uint16_t>(number());
            return sd_bus_message_append_basic(message, type(), &half);
        }
        case 'i':
        case 'u': {
            const auto word = static_cast<std::uint32_t>(number());
            return sd_bus_message_append_basic(message, type(), &word);
        }
        case 'x':
        case 't': {
            const std::uint64_t wide = number();
            return sd_bus_message_append_basic(message, type(), &wide);
        }
        case 'd': {
            const double value = real();
            return sd_bus_message_append_basic(message, 'd', &value);
        }
        case 's':
        case 'o':
        case 'g':
            return sd_bus_message_append_basic(message, type(), text().c_str());
        default:
            return appendContainer(message);
    }
}

int Value::appendContainer(sd_bus_message* message) const {
    const std::string inside = signature_.size() > 1 ? signature_.substr(1, signature_.size() - 2) : std::string();
    int result = 0;
    switch (type()) {
        case 'a':
            result = sd_bus_message_open_container(message, 'a', signature_.c_str() + 1);
            break;
        case '(':
            result = sd_bus_message_open_container(message, 'r', inside.c_str());
            break;
        case '{':
            result = sd_bus_message_open_container(message, 'e', inside.c_str());
            break;
        default:
            result = sd_bus_message_open_container(message, 'v', inner().signature().c_str());
            break;
    }
    for (const auto& element : elements()) {
        if (result < 0) return result;
        result = element.appendTo(message);
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

const Value* find(const NamedValues& values, const std::string& name) {
    const auto found =
        std::find_if(values.begin(), values.end(), [&](const auto& value) { return value.first == name; });
    return found == values.end() ? nullptr : &found->second;
}

void put(NamedValues& values, const NamedValues& others) {
    for (const auto& [name, value] : others) {
        const auto same =
            std::find_if(values.begin(), values.end(), [&name = name](const auto& own) { return own.first == name; });
        if (same != values.end()) {
            same->second = value;
        } else {
            values.emplace_back(name, value);
        }
    }
}

Value dictionary(const NamedValues& values) {
    Value::List entries;
    entries.reserve(values.size());
    for (const auto& [name, value] : values) {
        entries.push_back(Value::entry(Value::string(name), Value::variant(value)));
    }
    return Value::array("{sv}", std::move(entries));
}

NamedValues namedValues(const Value& dictionary) {
    NamedValues values;
    for (const auto& entry : dictionary.elements()) {
        if (entry.signature() != "{sv}") continue;
        values.emplace_back(entry.elements()[0].text(), entry.elements()[1].inner());
    }
    return values;
}

}  // namespace Simulator
