#pragma once

#include <cstdint>
#include <string_view>

namespace Services::Nodes {

class NodeService;

/// The node through which the process is asked to end (see requestOnTermination). All functions: any thread.
class Termination {
public:
    /// Whether a node of this name is that node.
    static bool isTarget(std::string_view name);
    /// It is served now, or was left out of the tree: its server is there all the same. A request that came before is
    /// carried out, on the calling thread.
    static void served(NodeService& service, std::uint64_t id);
    /// It was withdrawn, or its service has stopped.
    static void ended(const NodeService& service);
};

}  // namespace Services::Nodes
