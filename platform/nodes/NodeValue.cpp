#include "platform/nodes/NodeValue.h"

#include <utility>

NodeValue NodeValue::makeInteger(Ref<String> name, std::uint64_t value) {
    NodeValue made;
    made.kind = kInteger;
    made.integer = value;
    made.name = std::move(name);
    return made;
}

NodeValue NodeValue::makeString(Ref<String> name, Ref<String> text) {
    NodeValue made;
    made.kind = text ? kString : kNone;
    made.text = std::move(text);
    made.name = std::move(name);
    return made;
}

NodeValue NodeValue::makeList(Ref<String> name, TArray<NodeValue> children) {
    NodeValue made;
    made.kind = kList;
    made.children = std::move(children);
    made.name = std::move(name);
    return made;
}
