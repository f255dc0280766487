#include "btnode/Node.h"

#include <sys/socket.h>

#include <boost/json/object.hpp>
#include <utility>

#include "btnode/Codec.h"
#include "btnode/Connection.h"

namespace btnode {

namespace json = boost::json;

namespace {

Result<Done> post(Connection& connection, std::string_view method, json::object parameters, bool more,
                  const Limit& limit) {
    const std::string message = codec::encodeCall(method, std::move(parameters), more);
    if (message.size() - 1 > codec::kMaxMessage) {
        return Error{ErrorKind::Invalid, "the request is longer than the 256 KiB that a node takes"};
    }
    return connection.send(message, limit);
}

Result<codec::Reply> take(Connection& connection, const Limit& limit) {
    Result<std::string> message = connection.receive(limit);
    if (!message) return message.error();
    Result<codec::Reply> reply = codec::decodeReply(*message);
    if (reply && reply->error) return codec::errorOf(*reply);
    return reply;
}

Result<codec::Reply> call(Connection& connection, std::string_view method, json::object parameters,
                          const Limit& limit) {
    if (Result<Done> sent = post(connection, method, std::move(parameters), false, limit); !sent) return sent.error();
    return take(connection, limit);
}

Result<Done> postValues(Connection& connection, std::string_view method, const std::vector<Value>& values,
                        const Limit& limit) {
    if (Result<Done> sendable = codec::checkSendable(values); !sendable) return sendable;
    json::object parameters;
    parameters["values"] = codec::toJson(values);
    return post(connection, method, std::move(parameters), false, limit);
}

}  // namespace

Node::Node(std::string name, int fd) : name_(std::move(name)), connection_(std::make_unique<Connection>(fd)) {}
Node::~Node() = default;
Node::Node(Node&&) noexcept = default;
Node& Node::operator=(Node&&) noexcept = default;

Result<Node> Node::connect(const Tree& tree, std::string_view name, const Limit& limit) {
    Result<int> fd = tree.connect(name, limit);
    if (!fd) return fd.error();
    return Node(std::string(name), *fd);
}

Result<Description> Node::describe(const Limit& limit) {
    Result<codec::Reply> reply = call(*connection_, "Describe", {}, limit);
    if (!reply) return reply.error();
    Result<std::string> node = codec::stringOf(reply->parameters, "node");
    if (!node) return node.error();
    Result<std::string> server = codec::stringOf(reply->parameters, "server");
    if (!server) return server.error();
    Result<std::vector<std::string>> attributes = codec::stringsOf(reply->parameters, "attributes");
    if (!attributes) return attributes.error();
    Result<std::vector<std::string>> actions = codec::stringsOf(reply->parameters, "actions");
    if (!actions) return actions.error();
    return Description{std::move(*node), std::move(*server), std::move(*attributes), std::move(*actions)};
}

Result<std::vector<Value>> Node::get(std::string_view attribute, const Limit& limit) {
    if (Result<Done> asked = askFor(attribute, limit); !asked) return asked.error();
    return takeAnswer(limit);
}

Result<std::vector<Value>> Node::set(const std::vector<Value>& values, const Limit& limit) {
    if (Result<Done> posted = postValues(*connection_, "Set", values, limit); !posted) return posted.error();
    return takeAnswer(limit);
}

Result<std::vector<Value>> Node::execute(const std::vector<Value>& actions, const Limit& limit) {
    if (Result<Done> asked = askToExecute(actions, limit); !asked) return asked.error();
    return takeAnswer(limit);
}

Result<Done> Node::askToExecute(const std::vector<Value>& actions, const Limit& limit) {
    return postValues(*connection_, "Execute", actions, limit);
}

Result<Done> Node::askFor(std::string_view attribute, const Limit& limit) {
    if (!codec::isUtf8(attribute)) return Error{ErrorKind::Invalid, "the attribute's name is not valid UTF-8"};
    json::object parameters;
    parameters["attribute"] = json::string_view(attribute.data(), attribute.size());
    return post(*connection_, "Get", std::move(parameters), false, limit);
}

Result<std::vector<Value>> Node::takeAnswer(const Limit& limit) {
    Result<codec::Reply> reply = take(*connection_, limit);
    if (!reply) return reply.error();
    return codec::valuesOf(reply->parameters, "values");
}

Result<Done> Node::watch(const Limit& limit) {
    if (Result<Done> sent = post(*connection_, "Watch", {}, true, limit); !sent) return sent;
    Result<codec::Reply> first = take(*connection_, limit);
    if (!first) return first.error();
    return Done{};
}

Result<std::int64_t> Node::nextChange(const Limit& limit) {
    Result<codec::Reply> reply = take(*connection_, limit);
    if (!reply) return reply.error();
    const json::value* change = reply->parameters.if_contains("change");
    if (change == nullptr || !change->is_int64()) {
        return Error{ErrorKind::Protocol, "the answer is no node's: a change without its number"};
    }
    return change->get_int64();
}

int Node::fd() const {
    return connection_->fd();
}

int Node::serverProcess() const {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(connection_->fd(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return 0;
    return peer.pid;
}

}  // namespace btnode
