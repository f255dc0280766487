// What a client sends: messages that end with a NUL, read by one reader one after the other as a connection's are.
#include <boost/json/parse.hpp>

#include "platform/nodes/Varlink.h"
#include "tests/fuzz/Check.h"

namespace {

using namespace Services::Nodes;
using Fuzz::check;
using Token = JsonReader::Token;

bool sameParameters(const InvalidParameter& one, const InvalidParameter& other) {
    if (!one || !other) return !one && !other;
    return one->name == other->name && one->tooDeep == other->tooDeep;
}

/// Every token of the text, and whether it was read to its end.
bool readAll(JsonReader& reader, std::string_view text) {
    reader.reset(text);
    std::size_t left = text.size() + 1;
    for (Token token = reader.next(); token != Token::End; token = reader.next()) {
        if (token == Token::Error) {
            check(reader.next() == Token::Error, "an error stays");
            return false;
        }
        check(left-- > 0, "there are no more tokens than bytes");
        check(reader.begin() < reader.end() && reader.end() <= text.size(), "a token is inside of the text");
        std::uint64_t number = 0;
        if (token == Token::Number && reader.integer(number)) {
            const std::string digits(reader.text());
            const std::uint64_t expected = digits[0] == '-'
                                               ? static_cast<std::uint64_t>(std::strtoll(digits.c_str(), nullptr, 10))
                                               : std::strtoull(digits.c_str(), nullptr, 10);
            check(number == expected, "an integer has its value");
        }
    }
    return true;
}

/// Whether another reader of JSON takes it. That one has a largest exponent and no smallest.
bool isJson(std::string_view text) {
    boost::json::error_code failure;
    boost::json::parse_options options;
    options.max_depth = text.size() + 1;
    boost::json::parse({text.data(), text.size()}, failure, {}, options);
    return !failure || failure == boost::json::error::exponent_overflow;
}

void serve(JsonReader& used, std::string_view bytes) {
    const Fuzz::Exact message(bytes);
    const bool wellFormed = readAll(used, message.view());
    if (wellFormed) check(isJson(message.view()), "what is taken is JSON");

    JsonReader fresh;
    const std::optional<Call> call = parseCall(used, message.view());
    const std::optional<Call> again = parseCall(fresh, message.view());
    check(call.has_value() == again.has_value(), "a reader keeps nothing of the message before");
    if (!call) return;
    check(wellFormed, "a call is JSON");
    check(call->method == again->method && call->parameters == again->parameters, "two readers read the same");
    if (!call->parameters.empty()) {
        check(call->parameters.front() == '{' && call->parameters.back() == '}', "parameters are an object");
    }

    const std::string method(call->method);
    const Fuzz::Exact parameters(call->parameters);
    TArray<NodeValue> values;
    TArray<NodeValue> sameValues;
    check(sameParameters(readValuesParameter(used, parameters.view(), values),
                         readValuesParameter(fresh, call->parameters, sameValues)),
          "two readers find the same wrong");
    Ref<String> text;
    readTextParameter(used, parameters.view(), "interface", text);
    const InvalidParameter any = readNoParameters(used, parameters.view());
    if (parameters.view().empty()) check(!any, "no parameters are none");

    Reply reply;
    reply.error("org.varlink.service.MethodNotFound", "method", method);
    const std::string_view built = reply.message().substr(0, reply.message().size() - 1);
    check(readAll(fresh, built), "an error is JSON");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    JsonReader reader;
    std::string_view left = Fuzz::viewOf(data, size);
    for (;;) {
        const std::size_t end = left.find('\0');
        serve(reader, left.substr(0, end));
        if (end == std::string_view::npos) return 0;
        left.remove_prefix(end + 1);
    }
}
