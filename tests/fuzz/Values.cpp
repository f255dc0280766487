// Values on their whole way: from a client's call into the service, and back as a reply that the client reads.
#include "btnode/Codec.h"

#include <boost/json/serialize.hpp>

#include "platform/nodes/Limits.h"
#include "platform/nodes/Varlink.h"
#include "tests/fuzz/Check.h"

namespace {

using namespace Services::Nodes;
using Fuzz::check;

bool same(const Ref<String>& one, const Ref<String>& other) {
    return (one == nullptr) == (other == nullptr) && ::viewOf(one) == ::viewOf(other);
}

bool same(const TArray<NodeValue>& one, const TArray<NodeValue>& other) {
    if (one.size() != other.size()) return false;
    for (std::size_t at = 0; at < one.size(); ++at) {
        if (one[at].kind != other[at].kind || one[at].integer != other[at].integer ||
            !same(one[at].text, other[at].text) || !same(one[at].name, other[at].name) ||
            !same(one[at].children, other[at].children)) {
            return false;
        }
    }
    return true;
}

bool same(const TArray<NodeValue>& service, const std::vector<btnode::Value>& client) {
    if (service.size() != client.size()) return false;
    for (std::size_t at = 0; at < client.size(); ++at) {
        const NodeValue& one = service[at];
        const btnode::Value& other = client[at];
        using Kind = btnode::Value::Kind;
        const Kind kind = one.kind == NodeValue::kInteger  ? Kind::Integer
                          : one.kind == NodeValue::kString ? Kind::String
                          : one.kind == NodeValue::kList   ? Kind::List
                                                           : Kind::None;
        if (kind != other.kind || static_cast<std::int64_t>(one.integer) != other.integer ||
            ::viewOf(one.text) != other.text || (one.name != nullptr) != other.name.has_value() ||
            (one.name && one.name->view() != *other.name) || !same(one.children, other.children)) {
            return false;
        }
    }
    return true;
}

/// The values in a call; false where the call or they are refused.
bool readValues(std::string_view message, TArray<NodeValue>& values) {
    const Fuzz::Exact exact(message);
    JsonReader reader;
    const std::optional<Call> call = parseCall(reader, exact.view());
    return call && !readValuesParameter(reader, call->parameters, values);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string message = R"({"method":"com.kelvo.node.Set","parameters":{"values":)";
    message += Fuzz::viewOf(data, size);
    message += "}}";
    TArray<NodeValue> values;
    if (!readValues(message, values)) return 0;

    Reply reply;
    reply.begin().add("values", values).end();
    std::string_view sent = reply.message();
    check(sent.back() == '\0' && sent.find('\0') == sent.size() - 1, "a reply has one NUL, its last byte");
    sent.remove_suffix(1);
    const auto received = btnode::codec::decodeReply(sent);
    check(static_cast<bool>(received), "the client takes the service's reply");
    const auto read = btnode::codec::valuesOf(received->parameters, "values");
    check(static_cast<bool>(read), "the client reads the service's values");
    check(same(values, *read), "the client reads what the service wrote");
    check(static_cast<bool>(btnode::codec::checkSendable(*read)), "what was received can be sent");

    boost::json::object parameters;
    parameters["values"] = btnode::codec::toJson(*read);
    std::string call = btnode::codec::encodeCall("Set", std::move(parameters), false);
    call.pop_back();
    TArray<NodeValue> back;
    check(readValues(call, back), "the service takes the client's call");
    check(same(values, back), "the service reads what the client wrote");
    return 0;
}
