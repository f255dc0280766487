#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "btnode/Error.h"
#include "btnode/Limit.h"
#include "btnode/Value.h"

namespace btnode {

/// What stands behind a node, as its name tells.
enum class NodeKind { Control, Adapter, Device, Other };

struct NodeName {
    /// Below the root, for example "bluetooth/devices/00:11:22:33:44:55/device".
    std::string full;
    NodeKind kind = NodeKind::Other;
    /// Of an adapter or device; empty for others.
    std::string address;

    static NodeName parse(std::string full);
};

/// A tree of node sockets below a root folder. Cheap to copy; safe from any thread.
class Tree {
public:
    /// The service's own rule: $NODE_ROOT unless empty, else /run/nodes for root and $XDG_RUNTIME_DIR/nodes for others.
    /// An error of kind Unreachable where neither variable is set.
    static Result<std::string> defaultRoot();
    /// Looks at nothing yet: a missing folder shows in the first call that needs it.
    explicit Tree(std::string root);

    const std::string& root() const { return root_; }
    /// Of a node, for messages.
    std::string pathOf(std::string_view node) const;

    /// All nodes, sorted by name. Unreachable when the root has no tree.
    Result<std::vector<NodeName>> list() const;
    /// Whether a socket of that name is there; says nothing about who listens.
    bool has(std::string_view node) const;
    /// A connected stream socket, close-on-exec and non-blocking, which the caller owns.
    Result<int> connect(std::string_view node, const Limit& limit) const;

    /// The attributes' values of one node, in the order in which they were asked for.
    using Answers = std::vector<std::vector<Value>>;
    /// Reads the same attributes of many nodes, several nodes at once; one result for each, in order.
    std::vector<Result<Answers>> readAll(const std::vector<NodeName>& nodes, const std::vector<std::string>& attributes,
                                         const Limit& limit) const;

private:
    Error connectError(std::string_view node, int code) const;
    Error noTree() const;
    Error denied(std::string_view node) const;

    std::string root_;
};

/// The folder of the tree that this project's service publishes.
inline constexpr std::string_view kTreeFolder = "bluetooth";
inline constexpr std::string_view kServiceNode = "bluetooth/service";
inline constexpr std::string_view kMasterNode = "bluetooth/master";

}  // namespace btnode
