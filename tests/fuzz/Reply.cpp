// What a service, or something that stands in its place, answers to the client.
#include "btnode/Codec.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/fuzz/Check.h"

namespace {

namespace codec = btnode::codec;
using Fuzz::check;

/// Whether the text can be in JSON, as another reader of JSON sees it.
bool isInJson(std::string_view text) {
    boost::json::error_code failure;
    const boost::json::value value(boost::json::string_view(text.data(), text.size()));
    boost::json::parse(boost::json::serialize(value), failure);
    return !failure;
}

void readValues(const codec::Reply& reply) {
    const auto values = codec::valuesOf(reply.parameters, "values");
    if (!values) {
        check(!values.error().message.empty(), "an error says what is wrong");
        return;
    }
    boost::json::object parameters;
    parameters["values"] = codec::toJson(*values);
    const auto again = codec::valuesOf(parameters, "values");
    check(again && *again == *values, "values are carried as they are");
    int depth = 0;
    for (const btnode::Value& each : *values) depth = std::max(depth, btnode::depthOf(each));
    check(static_cast<bool>(codec::checkSendable(*values)) == (depth <= btnode::kMaxDepth),
          "what was received can be sent unless it is too deep");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Fuzz::Exact message(Fuzz::viewOf(data, size));
    check(codec::isUtf8(message.view()) == isInJson(message.view()), "what is UTF-8 can be in JSON");
    const auto reply = codec::decodeReply(message.view());
    if (!reply) {
        check(reply.error().kind == btnode::ErrorKind::Protocol, "what is no reply is a protocol error");
        return 0;
    }
    if (reply->error) check(!codec::errorOf(*reply).message.empty(), "an error says what is wrong");
    readValues(*reply);
    for (const char* key : {"names", "description"}) {
        const bool isThere = reply->parameters.contains(key);
        check(isThere || !codec::stringsOf(reply->parameters, key), "what is not there is no list");
        check(isThere || !codec::stringOf(reply->parameters, key), "what is not there is no text");
    }
    return 0;
}
