#pragma once

#include <string>
#include <vector>

namespace UnitTest {

/// The root of the node tree for this test program: a directory of its own that NODE_ROOT names from the first use on,
/// removed when the program ends.
const std::string& nodeRoot();

/// Whether this node's socket is in the tree.
bool isPublished(const std::string& node);
/// Every socket below bluetooth/, as a node's name, sorted.
std::vector<std::string> publishedNodes();

}  // namespace UnitTest
