#include "platform/nodes/Limits.h"
#include "platform/nodes/Varlink.h"

// The parameters of calls. The text was read before as a part of its message, so it is JSON: only types and names are
// left to check.

namespace Services::Nodes {

namespace {

using Token = JsonReader::Token;

/// Reads the fields of an object whose beginning was just read: `take(name, token)` reads the field's value and gives
/// the name of what is wrong in it.
template <class Take>
InvalidParameter readFields(JsonReader& reader, Take take) {
    while (reader.next() == Token::Key) {
        const std::string_view name = reader.text();
        if (InvalidParameter wrong = take(name, reader.next())) return wrong;
    }
    return {};
}

/// As readFields, of the text of an object that may be absent.
template <class Take>
InvalidParameter readParameters(JsonReader& reader, std::string_view parameters, Take take) {
    if (parameters.empty()) return {};
    reader.reset(parameters);
    reader.next();
    return readFields(reader, take);
}

InvalidParameter wrong(std::string_view name, bool tooDeep = false) {
    return WrongParameter{std::string(name), tooDeep};
}

/// Reads one Value, or a list of them, which may be nested.
class ValueReader {
public:
    explicit ValueReader(JsonReader& reader) : reader_(reader) {}

    /// The list in the field `name` whose first token is `token`; its values are at `depth`.
    InvalidParameter readList(std::string_view name, Token token, unsigned depth, TArray<NodeValue>& values) {
        if (token != Token::BeginArray) return wrong(name);
        for (Token element = reader_.next(); element != Token::EndArray; element = reader_.next()) {
            if (element != Token::BeginObject) return wrong(name);
            if (depth > Limits::kValueDepth) return wrong(name, true);
            if (InvalidParameter inner = readValue(depth, values.emplace_back())) return inner;
        }
        return {};
    }

private:
    /// Which of the nullable payloads a value has.
    struct Present {
        bool kind = false;
        bool integer = false;
        bool children = false;
    };

    InvalidParameter readValue(unsigned depth, NodeValue& value) {
        Present present;
        InvalidParameter inner = readFields(reader_, [&](std::string_view field, Token token) -> InvalidParameter {
            if (field == "kind") {
                present.kind = token == Token::String && readKind(value.kind);
                return present.kind ? InvalidParameter() : wrong(field);
            }
            if (field == "children") {
                present.children = token != Token::Null;
                if (!present.children) return {};
                return readList(field, token, depth + 1, value.children);
            }
            if (field == "integer") {
                present.integer = token != Token::Null;
                const bool good = !present.integer || (token == Token::Number && reader_.integer(value.integer));
                return good ? InvalidParameter() : wrong(field);
            }
            if (field == "name") return readText(field, token, value.name);
            if (field == "text") return readText(field, token, value.text);
            return wrong(field);
        });
        if (inner) return inner;
        if (!present.kind) return wrong("kind");
        return settle(present, value);
    }

    /// The payload of the value's kind must be there; the others go.
    static InvalidParameter settle(const Present& present, NodeValue& value) {
        if (value.kind == NodeValue::kInteger && !present.integer) return wrong("integer");
        if (value.kind == NodeValue::kString && !value.text) return wrong("text");
        if (value.kind == NodeValue::kList && !present.children) return wrong("children");
        if (value.kind != NodeValue::kInteger) value.integer = 0;
        if (value.kind != NodeValue::kString) value.text.reset();
        if (value.kind != NodeValue::kList) value.children.clear();
        return {};
    }

    bool readKind(std::uint32_t& kind) const noexcept {
        const std::string_view name = reader_.text();
        if (name == "none") {
            kind = NodeValue::kNone;
        } else if (name == "integer") {
            kind = NodeValue::kInteger;
        } else if (name == "string") {
            kind = NodeValue::kString;
        } else if (name == "list") {
            kind = NodeValue::kList;
        } else {
            return false;
        }
        return true;
    }

    InvalidParameter readText(std::string_view field, Token token, Ref<String>& text) {
        if (token == Token::Null) return {};
        if (token != Token::String) return wrong(field);
        text = String::create(reader_.text());
        return {};
    }

    JsonReader& reader_;
};

}  // namespace

InvalidParameter readNoParameters(JsonReader& reader, std::string_view parameters) {
    return readParameters(reader, parameters, [](std::string_view name, Token) { return wrong(name); });
}

InvalidParameter readTextParameter(JsonReader& reader, std::string_view parameters, std::string_view name,
                                   Ref<String>& text) {
    InvalidParameter invalid = readParameters(reader, parameters, [&](std::string_view field, Token token) {
        if (field != name || token != Token::String) return wrong(field);
        text = String::create(reader.text());
        return InvalidParameter();
    });
    if (!invalid && !text) return wrong(name);
    return invalid;
}

InvalidParameter readValuesParameter(JsonReader& reader, std::string_view parameters, TArray<NodeValue>& values) {
    bool present = false;
    InvalidParameter invalid = readParameters(reader, parameters, [&](std::string_view field, Token token) {
        if (field != "values") return wrong(field);
        present = true;
        return ValueReader(reader).readList(field, token, 1, values);
    });
    if (!invalid && !present) return wrong("values");
    return invalid;
}

}  // namespace Services::Nodes
