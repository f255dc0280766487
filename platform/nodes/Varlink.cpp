#include "platform/nodes/Varlink.h"

#include <charconv>

namespace Services::Nodes {

namespace {

using Token = JsonReader::Token;

/// Memory that a reply buffer keeps from one reply to the next.
constexpr std::size_t kKeptReplyBytes = 64 * 1024;

bool readFlag(Token token, bool& flag) noexcept {
    flag = token == Token::True;
    return token == Token::True || token == Token::False || token == Token::Null;
}

}  // namespace

std::optional<Call> parseCall(JsonReader& reader, std::string_view message) {
    reader.reset(message);
    if (reader.next() != Token::BeginObject) return {};
    Call call;
    bool hasMethod = false;
    for (Token token = reader.next(); token != Token::EndObject; token = reader.next()) {
        if (token != Token::Key) return {};
        const std::string_view key = reader.text();
        const Token value = reader.next();
        if (value == Token::Error) return {};
        if (key == "method") {
            if (value != Token::String) return {};
            call.method = reader.text();
            hasMethod = true;
        } else if (key == "parameters") {
            if (value == Token::Null) continue;
            const std::size_t begin = reader.begin();
            if (value != Token::BeginObject || !reader.skip(value)) return {};
            call.parameters = message.substr(begin, reader.end() - begin);
        } else if (key == "oneway") {
            if (!readFlag(value, call.oneway)) return {};
        } else if (key == "more") {
            if (!readFlag(value, call.more)) return {};
        } else if (key == "upgrade") {
            if (!readFlag(value, call.upgrade)) return {};
        } else if (key.find('.') == std::string_view::npos || !reader.skip(value)) {
            return {};  // only keys with a dot are left to extensions, which are ignored here
        }
    }
    const int flags = int{call.oneway} + int{call.more} + int{call.upgrade};
    if (reader.next() != Token::End || !hasMethod || flags > 1) return {};
    return call;
}

Reply& Reply::begin() {
    out_.clear();
    if (out_.capacity() > kKeptReplyBytes) out_.shrink_to_fit();
    out_.append("{\"parameters\":{");
    return *this;
}

void Reply::separate() {
    const char last = out_.back();
    if (last != '{' && last != '[') out_.push_back(',');
}

void Reply::key(std::string_view name) {
    separate();
    appendJsonString(out_, name);
    out_.push_back(':');
}

Reply& Reply::add(std::string_view name, std::string_view text) {
    key(name);
    appendJsonString(out_, text);
    return *this;
}

Reply& Reply::add(std::string_view name, std::uint64_t number) {
    key(name);
    char digits[20];
    const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), number);
    out_.append(digits, end);
    return *this;
}

Reply& Reply::add(std::string_view name, const TArray<NodeValue>& values) {
    key(name);
    appendValues(values);
    return *this;
}

Reply& Reply::beginList(std::string_view name) {
    key(name);
    out_.push_back('[');
    return *this;
}

Reply& Reply::item(std::string_view text) {
    separate();
    appendJsonString(out_, text);
    return *this;
}

Reply& Reply::endList() {
    out_.push_back(']');
    return *this;
}

void Reply::end(bool continues) {
    out_.append(continues ? "},\"continues\":true}" : "}}");
    out_.push_back('\0');
}

void Reply::error(std::string_view name, std::string_view parameter, std::string_view value) {
    out_.assign("{\"error\":");
    appendJsonString(out_, name);
    out_.append(",\"parameters\":{");
    if (!parameter.empty()) add(parameter, value);
    end();
}

void Reply::appendValues(const TArray<NodeValue>& values) {
    out_.push_back('[');
    for (const NodeValue& value : values) appendValue(value);
    out_.push_back(']');
}

void Reply::appendValue(const NodeValue& value) {
    separate();
    out_.push_back('{');
    if (value.name) add("name", value.name->view());
    if (value.kind == NodeValue::kInteger) {
        add("kind", "integer").add("integer", value.integer);
    } else if (value.kind == NodeValue::kString && value.text) {
        add("kind", "string").add("text", value.text->view());
    } else if (value.kind == NodeValue::kList) {
        add("kind", "list").add("children", value.children);
    } else {
        add("kind", "none");
    }
    out_.push_back('}');
}

}  // namespace Services::Nodes
