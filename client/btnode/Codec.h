#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "btnode/Error.h"
#include "btnode/Value.h"

/// Values and messages in the form in which they travel; not installed, so that users need no JSON library.
namespace btnode::codec {

/// The longest message a node takes, without its NUL.
inline constexpr std::size_t kMaxMessage = 256 * 1024;

/// One message, its NUL included. `method` is the bare name of a method of the node interface.
std::string encodeCall(std::string_view method, boost::json::object parameters, bool more);

struct Reply {
    boost::json::object parameters;
    /// Set when the reply is an error.
    std::optional<std::string> error;
    bool continues = false;
};

/// Takes one message without its NUL.
Result<Reply> decodeReply(std::string_view message);

/// The library's error for a Varlink error reply.
Error errorOf(const Reply& reply);

boost::json::array toJson(const std::vector<Value>& values);
/// The list under a reply's key; an error of kind Protocol names what is wrong in it.
Result<std::vector<Value>> valuesOf(const boost::json::object& parameters, std::string_view key);
Result<std::vector<std::string>> stringsOf(const boost::json::object& parameters, std::string_view key);
Result<std::string> stringOf(const boost::json::object& parameters, std::string_view key);

/// Whether a text can be sent: JSON carries only UTF-8.
bool isUtf8(std::string_view text);
/// Whether every name and text in the values can be sent, and they are not nested too deep.
Result<Done> checkSendable(const std::vector<Value>& values);

}  // namespace btnode::codec
