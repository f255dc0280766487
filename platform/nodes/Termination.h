#pragma once

#include <string_view>

namespace Services::Nodes {

class Node;

/// The node through which the process is asked to end (see requestOnTermination). All functions: any thread.
class Termination {
public:
    /// Whether a node of this name is that node.
    static bool isTarget(std::string_view name);
    /// It was published: a request that came before is carried out now, on the calling thread.
    static void published(Node& node);
    /// It was withdrawn.
    static void withdrawn(Node& node);
};

}  // namespace Services::Nodes
