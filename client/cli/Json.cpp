#include "client/cli/Json.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

namespace btnode::cli {

namespace json = boost::json;

namespace {

std::string stringOf(const json::value& value) {
    return json::serialize(value);
}

void write(std::string& out, const json::value& value, std::size_t depth) {
    const auto lineBreak = [&](std::size_t level) {
        out += '\n';
        out.append(2 * level, ' ');
    };
    if (const json::object* object = value.if_object(); object != nullptr && !object->empty()) {
        char mark = '{';
        for (const auto& [key, member] : *object) {
            out += mark;
            mark = ',';
            lineBreak(depth + 1);
            out += stringOf(json::value(key)) + ": ";
            write(out, member, depth + 1);
        }
        lineBreak(depth);
        out += '}';
    } else if (const json::array* array = value.if_array(); array != nullptr && !array->empty()) {
        char mark = '[';
        for (const json::value& each : *array) {
            out += mark;
            mark = ',';
            lineBreak(depth + 1);
            write(out, each, depth + 1);
        }
        lineBreak(depth);
        out += ']';
    } else {
        out += stringOf(value);
    }
}

}  // namespace

std::string shortJson(const json::value& value) {
    return stringOf(value);
}

std::string prettyJson(const json::value& value) {
    std::string out;
    write(out, value, 0);
    return out;
}

json::value payloadJson(const Value& value) {
    switch (value.kind) {
        case Value::Kind::Integer:
            return static_cast<std::uint64_t>(value.integer);
        case Value::Kind::String:
            return json::value(value.text);
        case Value::Kind::List: {
            json::array array;
            for (const Value& each : value.children) {
                json::object entry;
                entry["name"] = each.name ? json::value(*each.name) : json::value(nullptr);
                entry["value"] = payloadJson(each);
                array.push_back(std::move(entry));
            }
            return array;
        }
        case Value::Kind::None:
            break;
    }
    return nullptr;
}

json::array stringsJson(const std::vector<std::string>& strings) {
    json::array array;
    for (const std::string& each : strings) array.push_back(json::value(each));
    return array;
}

}  // namespace btnode::cli
