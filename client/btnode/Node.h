#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "btnode/Error.h"
#include "btnode/Limit.h"
#include "btnode/Tree.h"
#include "btnode/Value.h"

namespace btnode {

class Connection;

struct Description {
    std::string node;
    std::string server;
    std::vector<std::string> attributes;
    std::vector<std::string> actions;
};

/// A connection to one node. One thread at a time; a call that ended with an error leaves the
/// connection unusable, unless said otherwise.
class Node {
public:
    static Result<Node> connect(const Tree& tree, std::string_view name, const Limit& limit);
    ~Node();
    Node(Node&&) noexcept;
    Node& operator=(Node&&) noexcept;

    const std::string& name() const { return name_; }

    Result<Description> describe(const Limit& limit);
    /// No values: the node has no such attribute, or its object is gone.
    Result<std::vector<Value>> get(std::string_view attribute, const Limit& limit);
    Result<std::vector<Value>> set(const std::vector<Value>& values, const Limit& limit);
    /// Executes the actions in order; one value for each, or none at all when the node's object is gone.
    Result<std::vector<Value>> execute(const std::vector<Value>& actions, const Limit& limit);

    /// `get` and `execute` in two halves: several questions can be asked at once, and their answers, which come in the
    /// same order, waited for together with other things. A limit that passes in `takeAnswer` loses no answer.
    Result<Done> askFor(std::string_view attribute, const Limit& limit);
    Result<Done> askToExecute(const std::vector<Value>& actions, const Limit& limit);
    Result<std::vector<Value>> takeAnswer(const Limit& limit);

    /// Begins to watch: returns once the node has confirmed it. The connection serves nothing else afterwards.
    Result<Done> watch(const Limit& limit);
    /// Waits for the next change and gives the server's argument. Gone once the node was withdrawn.
    Result<std::int64_t> nextChange(const Limit& limit);
    /// Readable when a change may have come; for callers that wait for several things.
    int fd() const;

    /// The process that listens on the node; 0 when the kernel does not tell.
    int serverProcess() const;

private:
    Node(std::string name, int fd);

    std::string name_;
    std::unique_ptr<Connection> connection_;
};

}  // namespace btnode
