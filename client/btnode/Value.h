#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace btnode {

/// One value of a request or of a reply; the kind tells which of the payloads counts.
struct Value {
    enum class Kind { None, Integer, String, List };

    std::optional<std::string> name = {};
    Kind kind = Kind::None;
    /// 64 bits; a service writes them as a number from 0 to 2^64-1, so what it wrote above 2^63-1 is negative here.
    std::int64_t integer = 0;
    std::string text = {};
    std::vector<Value> children = {};

    static Value none(std::optional<std::string> name = {});
    static Value of(std::optional<std::string> name, std::int64_t integer);
    static Value of(std::optional<std::string> name, std::string text);
    static Value list(std::optional<std::string> name, std::vector<Value> children);

    /// The first child of that name, or null.
    const Value* child(const std::string& childName) const;

    bool operator==(const Value&) const = default;
};

/// The deepest nesting a node takes; an action is at depth 1.
inline constexpr int kMaxDepth = 16;

/// The value itself counts as 1.
int depthOf(const Value& value);

}  // namespace btnode
