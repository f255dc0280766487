#include "btnode/Value.h"

#include <algorithm>
#include <utility>

namespace btnode {

Value Value::none(std::optional<std::string> name) {
    return {std::move(name), Kind::None, 0, {}, {}};
}

Value Value::of(std::optional<std::string> name, std::int64_t integer) {
    return {std::move(name), Kind::Integer, integer, {}, {}};
}

Value Value::of(std::optional<std::string> name, std::string text) {
    return {std::move(name), Kind::String, 0, std::move(text), {}};
}

Value Value::list(std::optional<std::string> name, std::vector<Value> children) {
    return {std::move(name), Kind::List, 0, {}, std::move(children)};
}

const Value* Value::child(const std::string& childName) const {
    const auto found =
        std::find_if(children.begin(), children.end(), [&](const Value& each) { return each.name == childName; });
    return found == children.end() ? nullptr : &*found;
}

int depthOf(const Value& value) {
    int deepest = 0;
    for (const Value& each : value.children) deepest = std::max(deepest, depthOf(each));
    return deepest + 1;
}

}  // namespace btnode
