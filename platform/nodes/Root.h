#pragma once

#include <string>

#include "platform/nodes/Fd.h"

namespace Services::Nodes {

/// The tree's root: $NODE_ROOT (empty counts as unset); else /run/nodes for root, $XDG_RUNTIME_DIR/nodes for anybody
/// else. Empty when there is none of them.
std::string rootPath();

/// Opens the folder at `path`, of any length, making it and missing parents with mode 0755. Links on the way are
/// followed: the root is named by whoever starts the process. No descriptor, with errno, on failure.
Fd openRoot(const std::string& path);

}  // namespace Services::Nodes
