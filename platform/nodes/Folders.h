#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/nodes/Fd.h"

namespace Services::Nodes {

/// A node's name as a path below the root: folders, and the node's own name in the last of them. Links are never
/// followed. A failed step leaves its reason in errno.
class NodePath {
public:
    explicit NodePath(std::string_view name);

    /// Whether every part can be a folder's or a file's name, and there is at least one.
    bool valid() const noexcept { return valid_; }
    /// The node's own name.
    const std::string& leaf() const noexcept { return parts_.back(); }
    std::string_view topFolder() const noexcept { return parts_.front(); }

    /// The folder that holds the node. Missing folders are made, 0755; when that fails in the middle, those that were
    /// made are removed. `made`: how many of the last folders are new.
    Fd makeFolder(int root, std::size_t& made) const;
    /// The folder that holds the node, if it is there.
    Fd openFolder(int root) const;
    /// Removes the node's folder if it is empty, then the one above, and so on; at most `most` of them.
    void removeEmptyFolders(int root, std::size_t most = SIZE_MAX) const noexcept;

private:
    /// Folders from the top, as many as there are; the root is not among them.
    std::vector<Fd> openFolders(int root) const;

    std::vector<std::string> parts_;
    bool valid_ = true;
};

}  // namespace Services::Nodes
