#pragma once

#include <cstdint>

#include "platform/host/Containers.h"
#include "platform/host/String.h"

/// The tagged value in which node requests and replies travel.
struct NodeValue {
    /// Codes of `kind`.
    static constexpr std::uint32_t kNone = 0;
    static constexpr std::uint32_t kInteger = 1;
    static constexpr std::uint32_t kString = 2;
    static constexpr std::uint32_t kList = 4;

    std::uint32_t kind = kNone;
    std::uint64_t integer = 0;   ///< payload of an integer
    Ref<String> text;            ///< payload of a string
    Ref<Object> reference;       ///< the platform's own; copied, never set by a server
    TArray<NodeValue> children;  ///< payload of a list, for example the options of an action
    Ref<String> name;            ///< action name in a request, attribute or action name in a reply; may be null

    static NodeValue makeInteger(Ref<String> name, std::uint64_t value);
    /// Kind 0 when the text is null.
    static NodeValue makeString(Ref<String> name, Ref<String> text);
    static NodeValue makeList(Ref<String> name, TArray<NodeValue> children);

    bool isNamed(std::string_view other) const noexcept { return name && name->equals(other); }
};
