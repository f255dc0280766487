#include "platform/nodes/Root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Services::Nodes {

namespace {

constexpr mode_t kFolderMode = 0755;

std::string fromEnvironment(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

int openFolder(int parent, const char* name) {
    return openat(parent, name, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

}  // namespace

std::string rootPath() {
    if (std::string path = fromEnvironment("NODE_ROOT"); !path.empty()) return path;
    if (geteuid() == 0) return "/run/nodes";
    const std::string runtime = fromEnvironment("XDG_RUNTIME_DIR");
    return runtime.empty() ? runtime : runtime + "/nodes";
}

Fd openRoot(const std::string& path) {
    // Folder by folder, since the kernel takes no path above 4095 bytes.
    Fd folder(openFolder(AT_FDCWD, path.front() == '/' ? "/" : "."));
    for (std::size_t at = 0; folder && at < path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const std::string name = path.substr(at, end - at);
        at = end + 1;
        if (name.empty()) continue;
        Fd next(openFolder(folder.get(), name.c_str()));
        if (!next && errno == ENOENT) {
            const bool made = mkdirat(folder.get(), name.c_str(), kFolderMode) == 0;
            if (!made && errno != EEXIST) return {};
            if (made) fchmodat(folder.get(), name.c_str(), kFolderMode, 0);  // the umask may have taken bits
            next = Fd(openFolder(folder.get(), name.c_str()));
        }
        if (!next) return {};
        folder = std::move(next);
    }
    return folder;
}

}  // namespace Services::Nodes
