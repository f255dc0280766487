#include "btnode/Codec.h"

#include <boost/json/array.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace btnode::codec {

namespace json = boost::json;

namespace {

constexpr std::string_view kInterface = "com.kelvo.node.";
constexpr std::string_view kServiceInterface = "org.varlink.service.";

// A value nests two JSON levels (object, array of children); the rest is the message around the values.
constexpr std::size_t kMaxJsonDepth = 2 * kMaxDepth + 16;

Error protocolError(std::string what) {
    return {ErrorKind::Protocol, "the answer is no node's: " + std::move(what)};
}

json::string_view view(std::string_view text) {
    return {text.data(), text.size()};
}

std::string str(const json::string& text) {
    return std::string(text.data(), text.size());
}

json::object toJson(const Value& value) {
    json::object object;
    if (value.name) object["name"] = view(*value.name);
    switch (value.kind) {
        case Value::Kind::None:
            object["kind"] = "none";
            break;
        case Value::Kind::Integer:
            object["kind"] = "integer";
            object["integer"] = value.integer;
            break;
        case Value::Kind::String:
            object["kind"] = "string";
            object["text"] = view(value.text);
            break;
        case Value::Kind::List:
            object["kind"] = "list";
            object["children"] = codec::toJson(value.children);
            break;
    }
    return object;
}

// A member that is null counts as absent.
const json::value* member(const json::object& object, std::string_view key) {
    const json::value* found = object.if_contains(view(key));
    return found == nullptr || found->is_null() ? nullptr : found;
}

Result<Value> fromJson(const json::value& source);

Result<std::vector<Value>> fromArray(const json::value& source) {
    const json::array* array = source.if_array();
    if (array == nullptr) return protocolError("a list of values is no array");
    std::vector<Value> values;
    values.reserve(array->size());
    for (const json::value& each : *array) {
        Result<Value> value = fromJson(each);
        if (!value) return value.error();
        values.push_back(std::move(*value));
    }
    return values;
}

Result<Value> fromJson(const json::value& source) {
    const json::object* object = source.if_object();
    if (object == nullptr) return protocolError("a value is no object");
    const json::value* kind = member(*object, "kind");
    if (kind == nullptr || !kind->is_string()) return protocolError("a value has no kind");
    Value value;
    if (const json::value* name = member(*object, "name")) {
        if (!name->is_string()) return protocolError("a value's name is no string");
        value.name = str(name->get_string());
    }
    const json::string& kindText = kind->get_string();
    if (kindText == "none") return value;
    if (kindText == "integer") {
        const json::value* integer = member(*object, "integer");
        value.kind = Value::Kind::Integer;
        if (integer != nullptr && integer->is_int64()) {
            value.integer = integer->get_int64();
        } else if (integer != nullptr && integer->is_uint64()) {
            // The parser's type for what is above 2^63-1.
            value.integer = static_cast<std::int64_t>(integer->get_uint64());
        } else {
            return protocolError("an integer value has no integer");
        }
        return value;
    }
    if (kindText == "string") {
        const json::value* text = member(*object, "text");
        if (text == nullptr || !text->is_string()) return protocolError("a string value has no text");
        value.kind = Value::Kind::String;
        value.text = str(text->get_string());
        return value;
    }
    if (kindText == "list") {
        const json::value* children = member(*object, "children");
        if (children == nullptr) return protocolError("a list value has no children");
        Result<std::vector<Value>> list = fromArray(*children);
        if (!list) return list.error();
        value.kind = Value::Kind::List;
        value.children = std::move(*list);
        return value;
    }
    return protocolError("a value has the unknown kind '" + str(kindText) + "'");
}

}  // namespace

std::string encodeCall(std::string_view method, json::object parameters, bool more) {
    json::object call;
    call["method"] = std::string(kInterface) + std::string(method);
    if (!parameters.empty()) call["parameters"] = std::move(parameters);
    if (more) call["more"] = true;
    std::string message = json::serialize(call);
    message.push_back('\0');
    return message;
}

Result<Reply> decodeReply(std::string_view message) {
    json::error_code failure;
    json::parse_options options;
    options.max_depth = kMaxJsonDepth;
    json::value parsed = json::parse(view(message), failure, {}, options);
    if (failure) return protocolError("it is no JSON");
    json::object* object = parsed.if_object();
    if (object == nullptr) return protocolError("it is no object");
    Reply reply;
    if (const json::value* error = member(*object, "error")) {
        if (!error->is_string()) return protocolError("its error is no string");
        reply.error = str(error->get_string());
    }
    if (const json::value* continues = member(*object, "continues")) {
        if (!continues->is_bool()) return protocolError("its 'continues' is no boolean");
        reply.continues = continues->get_bool();
    }
    if (json::value* parameters = object->if_contains("parameters"); parameters != nullptr && !parameters->is_null()) {
        if (!parameters->is_object()) return protocolError("its parameters are no object");
        reply.parameters = std::move(parameters->get_object());
    }
    return reply;
}

Error errorOf(const Reply& reply) {
    const std::string& name = *reply.error;
    const auto detail = [&](std::string_view key) {
        const json::value* found = member(reply.parameters, key);
        return found != nullptr && found->is_string() ? str(found->get_string()) : std::string();
    };
    if (name == std::string(kInterface) + "Withdrawn") return {ErrorKind::Gone, "the node was withdrawn"};
    if (name == std::string(kInterface) + "Busy") {
        return {ErrorKind::Busy, "the service has more requests in progress than it takes", "Try again in a moment."};
    }
    if (name == std::string(kServiceInterface) + "InvalidParameter") {
        return {ErrorKind::Refused, "the service does not accept the parameter '" + detail("parameter") + "'"};
    }
    if (name == std::string(kServiceInterface) + "MethodNotFound") {
        return {ErrorKind::Refused, "the node does not know the method " + detail("method")};
    }
    return {ErrorKind::Refused, "the service answered " + name};
}

json::array toJson(const std::vector<Value>& values) {
    json::array array;
    array.reserve(values.size());
    for (const Value& each : values) array.push_back(toJson(each));
    return array;
}

Result<std::vector<Value>> valuesOf(const json::object& parameters, std::string_view key) {
    const json::value* found = member(parameters, key);
    if (found == nullptr) return protocolError("it has no '" + std::string(key) + "'");
    return fromArray(*found);
}

Result<std::vector<std::string>> stringsOf(const json::object& parameters, std::string_view key) {
    const json::value* found = member(parameters, key);
    if (found == nullptr || !found->is_array()) return protocolError("it has no list '" + std::string(key) + "'");
    std::vector<std::string> strings;
    for (const json::value& each : found->get_array()) {
        if (!each.is_string()) return protocolError("'" + std::string(key) + "' holds something else than strings");
        strings.push_back(str(each.get_string()));
    }
    return strings;
}

Result<std::string> stringOf(const json::object& parameters, std::string_view key) {
    const json::value* found = member(parameters, key);
    if (found == nullptr || !found->is_string()) return protocolError("it has no text '" + std::string(key) + "'");
    return str(found->get_string());
}

bool isUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        const auto lead = static_cast<unsigned char>(text[at]);
        std::size_t more = 0;
        unsigned long code = lead;
        if (lead >= 0xf0 && lead <= 0xf4) {
            more = 3;
            code = lead & 0x07U;
        } else if (lead >= 0xe0) {
            more = 2;
            code = lead & 0x0fU;
        } else if (lead >= 0xc2) {
            more = 1;
            code = lead & 0x1fU;
        } else if (lead >= 0x80) {
            return false;
        }
        if (lead > 0xf4 || text.size() - at <= more) return false;
        for (std::size_t next = 1; next <= more; ++next) {
            const auto tail = static_cast<unsigned char>(text[at + next]);
            if ((tail & 0xc0U) != 0x80U) return false;
            code = (code << 6U) | (tail & 0x3fU);
        }
        const bool overlong = (more == 2 && code < 0x800) || (more == 3 && code < 0x10000);
        const bool surrogate = code >= 0xd800 && code <= 0xdfff;
        if (overlong || surrogate || code > 0x10ffff) return false;
        at += more + 1;
    }
    return true;
}

Result<Done> checkSendable(const std::vector<Value>& values) {
    for (const Value& each : values) {
        if (depthOf(each) > kMaxDepth) {
            return Error{ErrorKind::Invalid, "values are nested deeper than " + std::to_string(kMaxDepth)};
        }
        if ((each.name && !isUtf8(*each.name)) || !isUtf8(each.text)) {
            return Error{ErrorKind::Invalid, "a text is not valid UTF-8"};
        }
        if (Result<Done> below = checkSendable(each.children); !below) return below;
    }
    return Done{};
}

}  // namespace btnode::codec
