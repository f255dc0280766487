#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/nodes/Json.h"
#include "platform/nodes/NodeValue.h"

namespace Services::Nodes {

/// The envelope of a call. Views into the message and into the reader that parsed it.
struct Call {
    std::string_view method;
    std::string_view parameters;  ///< a JSON object, or empty: absent, null and {} are equal
    bool oneway = false;
    bool more = false;
    bool upgrade = false;
};

/// Reads one message (without its NUL). Nothing when it is malformed: then the connection is to be closed.
std::optional<Call> parseCall(JsonReader& reader, std::string_view message);

/// What is wrong with a parameter that is unknown, missing or ill-typed; inside values the name is the innermost
/// field's.
struct WrongParameter {
    std::string name;
    bool tooDeep = false;  ///< it holds values below kValueDepth
};

/// The parameters of a call: each function gives what is wrong, or nothing. `parameters` was read by parseCall.
using InvalidParameter = std::optional<WrongParameter>;
InvalidParameter readNoParameters(JsonReader& reader, std::string_view parameters);
InvalidParameter readTextParameter(JsonReader& reader, std::string_view parameters, std::string_view name,
                                   Ref<String>& text);
/// The parameter `values`, a list of Value. Integers from -2^63 to 2^64-1 are taken as their 64-bit pattern. Payloads
/// that are not the one of the value's kind are checked for their type and dropped.
InvalidParameter readValuesParameter(JsonReader& reader, std::string_view parameters, TArray<NodeValue>& values);

/// Builds one reply after the other in a buffer that it reuses.
class Reply {
public:
    /// Begins a reply whose parameters follow.
    Reply& begin();
    Reply& add(std::string_view name, std::string_view text);
    Reply& add(std::string_view name, std::uint64_t number);
    Reply& add(std::string_view name, const TArray<NodeValue>& values);
    /// A list of strings, one at a time between the two.
    Reply& beginList(std::string_view name);
    Reply& item(std::string_view text);
    Reply& endList();
    void end(bool continues = false);

    /// An error with at most one parameter, complete.
    void error(std::string_view name, std::string_view parameter = {}, std::string_view value = {});

    /// The message, its NUL included.
    std::string_view message() const noexcept { return out_; }

private:
    void key(std::string_view name);
    void appendValue(const NodeValue& value);
    void appendValues(const TArray<NodeValue>& values);
    void separate();

    std::string out_;
};

}  // namespace Services::Nodes
