#include "platform/nodes/Folders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/nodes/DeviceNode.h"

namespace Services::Nodes {

namespace {

constexpr mode_t kFolderMode = 0755;

Fd openOne(int parent, const std::string& name) {
    return Fd(openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

bool isComponent(std::string_view text) noexcept {
    constexpr std::size_t kMaxBytes = 255;
    if (text.empty() || text.size() > kMaxBytes || text == "." || text == "..") return false;
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte == '/' || byte < 0x20 || byte == 0x7F;
    });
}

NodePath::NodePath(std::string_view name) {
    for (;;) {
        const std::size_t slash = name.find('/');
        parts_.emplace_back(name.substr(0, slash));
        valid_ = valid_ && isComponent(parts_.back());
        if (slash == std::string_view::npos) return;
        name.remove_prefix(slash + 1);
    }
}

std::vector<Fd> NodePath::openFolders(int root) const {
    std::vector<Fd> folders;
    for (std::size_t at = 0; at + 1 < parts_.size(); ++at) {
        Fd folder = openOne(folders.empty() ? root : folders.back().get(), parts_[at]);
        if (!folder) break;
        folders.push_back(std::move(folder));
    }
    return folders;
}

Fd NodePath::openFolder(int root) const {
    if (parts_.size() == 1) return Fd(openat(root, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::vector<Fd> folders = openFolders(root);
    if (folders.size() + 1 < parts_.size()) return {};
    return std::move(folders.back());
}

Fd NodePath::makeFolder(int root, std::size_t& made) const {
    made = 0;
    if (parts_.size() == 1) return openFolder(root);
    std::vector<Fd> folders = openFolders(root);
    while (folders.size() + 1 < parts_.size()) {
        const int parent = folders.empty() ? root : folders.back().get();
        const std::string& name = parts_[folders.size()];
        const bool isNew = mkdirat(parent, name.c_str(), kFolderMode) == 0;
        if (isNew) {
            ++made;
            fchmodat(parent, name.c_str(), kFolderMode, 0);  // the umask may have taken bits
        }
        Fd folder;
        if (isNew || errno == EEXIST) folder = openOne(parent, name);
        if (!folder) {
            const int error = errno;
            removeEmptyFolders(root, made);
            made = 0;
            errno = error;
            return {};
        }
        folders.push_back(std::move(folder));
    }
    return std::move(folders.back());
}

void NodePath::removeEmptyFolders(int root, std::size_t most) const noexcept {
    const std::vector<Fd> folders = openFolders(root);
    for (std::size_t at = folders.size(); at > 0 && most > 0; --at, --most) {
        const int parent = at == 1 ? root : folders[at - 2].get();
        if (unlinkat(parent, parts_[at - 1].c_str(), AT_REMOVEDIR) != 0) return;
    }
}

}  // namespace Services::Nodes
