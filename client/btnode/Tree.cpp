#include "btnode/Tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "btnode/Descriptor.h"
#include "btnode/Node.h"

namespace btnode {

namespace {

// Half of what the service grants one user, so that several clients find room beside each other.
constexpr std::size_t kNodesAtOnce = 32;
// Folders below the tree's own; a real tree has two.
constexpr int kMaxFolders = 8;
// The kernel refuses a path of this length or more in one call.
constexpr std::size_t kPathLimit = 4096;
// While a socket's queue of connections is full there is nothing to poll for.
constexpr std::chrono::milliseconds kQueueRetry{5};

constexpr std::string_view kStart =
    "Start it with 'bluetooth-service', or with 'systemctl start bluetooth-nodes' where it is installed as a unit.";

/// Opens a folder of any path length; invalid with errno set when that fails.
Descriptor openFolder(std::string_view path) {
    int base = AT_FDCWD;
    Descriptor held;
    while (path.size() >= kPathLimit) {
        const std::size_t cut = path.rfind('/', kPathLimit - 1);
        if (cut == std::string_view::npos || cut == 0) break;
        Descriptor next(::openat(base, std::string(path.substr(0, cut)).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!next) return next;
        held = std::move(next);
        base = held.get();
        path.remove_prefix(std::min(path.find_first_not_of('/', cut), path.size()));
    }
    const std::string rest = path.empty() ? "." : std::string(path);
    return Descriptor(::openat(base, rest.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

std::pair<std::string, std::string> splitLeaf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {".", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

std::string groupName(gid_t group) {
    const struct group* entry = ::getgrgid(group);
    return entry != nullptr ? entry->gr_name : std::to_string(group);
}

std::string userName(uid_t user) {
    const passwd* entry = ::getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

void collect(int folder, const std::string& prefix, int depth, std::vector<NodeName>& nodes) {
    DIR* stream = ::fdopendir(folder);
    if (stream == nullptr) {
        ::close(folder);
        return;
    }
    while (const dirent* entry = ::readdir(stream)) {
        const std::string leaf = entry->d_name;
        if (leaf.starts_with('.')) continue;
        unsigned char type = entry->d_type;
        if (type == DT_UNKNOWN) {
            struct stat status {};
            if (::fstatat(::dirfd(stream), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
            type = S_ISSOCK(status.st_mode) ? DT_SOCK : S_ISDIR(status.st_mode) ? DT_DIR : DT_REG;
        }
        if (type == DT_SOCK) nodes.push_back(NodeName::parse(prefix + leaf));
        if (type == DT_DIR && depth < kMaxFolders) {
            const int below = ::openat(::dirfd(stream), leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (below >= 0) collect(below, prefix + leaf + "/", depth + 1, nodes);
        }
    }
    ::closedir(stream);
}

}  // namespace

NodeName NodeName::parse(std::string full) {
    const auto between = [&](std::string_view before, std::string_view after) -> std::optional<std::string> {
        if (!full.starts_with(before) || !full.ends_with(after)) return std::nullopt;
        if (full.size() <= before.size() + after.size()) return std::nullopt;
        std::string middle = full.substr(before.size(), full.size() - before.size() - after.size());
        if (middle.find('/') != std::string::npos) return std::nullopt;
        return middle;
    };
    if (full == kServiceNode || full == kMasterNode) return {std::move(full), NodeKind::Control, {}};
    if (auto address = between("bluetooth/adapters/", "/adapter")) {
        return {std::move(full), NodeKind::Adapter, std::move(*address)};
    }
    if (auto address = between("bluetooth/devices/", "/device")) {
        return {std::move(full), NodeKind::Device, std::move(*address)};
    }
    return {std::move(full), NodeKind::Other, {}};
}

Result<std::string> Tree::defaultRoot() {
    const auto variable = [](const char* name) -> std::string {
        const char* value = std::getenv(name);
        return value == nullptr ? std::string() : value;
    };
    if (std::string root = variable("NODE_ROOT"); !root.empty()) return root;
    if (::geteuid() == 0) return std::string("/run/nodes");
    if (const std::string runtime = variable("XDG_RUNTIME_DIR"); !runtime.empty()) return runtime + "/nodes";
    return Error{ErrorKind::Unreachable, "neither NODE_ROOT nor XDG_RUNTIME_DIR tells where the node tree is",
                 "Name its root with --root DIR or NODE_ROOT."};
}

Tree::Tree(std::string root) : root_(std::move(root)) {
    while (root_.size() > 1 && root_.ends_with('/')) root_.pop_back();
}

std::string Tree::pathOf(std::string_view node) const {
    return (root_ == "/" ? std::string() : root_) + "/" + std::string(node);
}

Error Tree::noTree() const {
    Error error{ErrorKind::Unreachable, "the Bluetooth service is not running: no socket " + pathOf(kServiceNode),
                std::string(kStart)};
    const Tree system("/run/nodes");
    if (root_ != system.root() && system.has(kServiceNode)) {
        error.hint = "A service runs below /run/nodes: name it with --root /run/nodes or NODE_ROOT=/run/nodes.";
    }
    return error;
}

Error Tree::denied(std::string_view node) const {
    const std::string path = pathOf(node);
    const auto [parent, leaf] = splitLeaf(path);
    Error error{ErrorKind::Denied, "no permission to use " + path};
    struct stat status {};
    const Descriptor folder = openFolder(parent);
    if (!folder || ::fstatat(folder.get(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        error.hint = "A folder on the way there keeps you out.";
    } else if ((status.st_mode & S_IWGRP) != 0) {
        const std::string group = groupName(status.st_gid);
        error.message += ", which the group '" + group + "' may use";
        error.hint = "Join the group with 'sudo usermod -aG " + group + " " + userName(::geteuid()) +
                     "' and log in again, or use sudo.";
    } else {
        const std::string owner = userName(status.st_uid);
        error.message += ", which only the user '" + owner + "' may use";
        error.hint = "Run it as " + owner + ", for example with sudo.";
    }
    return error;
}

Error Tree::connectError(std::string_view node, int code) const {
    const std::string path = pathOf(node);
    switch (code) {
        case ENOENT:
        case ENOTDIR:
            if (!has(kServiceNode)) return noTree();
            return {ErrorKind::NotFound, "there is no node " + std::string(node),
                    "'btnode list' shows the nodes that there are."};
        case ECONNREFUSED:
            return {ErrorKind::Unreachable,
                    "the Bluetooth service is not running: nobody listens on " + path +
                        " (a killed service leaves its sockets behind)",
                    std::string(kStart)};
        case EACCES:
        case EPERM:
            return denied(node);
        default:
            return {ErrorKind::System, "cannot connect to " + path + ": " + std::strerror(code)};
    }
}

Result<std::vector<NodeName>> Tree::list() const {
    const Descriptor root = openFolder(root_);
    const int folder =
        root ? ::openat(root.get(), std::string(kTreeFolder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    if (folder < 0) {
        if (errno == EACCES)
            return Error{ErrorKind::Denied, "no permission to read " + pathOf(kTreeFolder),
                         "A folder on the way there keeps you out."};
        if (errno == ENOENT || errno == ENOTDIR) return noTree();
        return Error{ErrorKind::System, "cannot read " + pathOf(kTreeFolder) + ": " + std::strerror(errno)};
    }
    std::vector<NodeName> nodes;
    collect(folder, std::string(kTreeFolder) + "/", 0, nodes);
    std::sort(nodes.begin(), nodes.end(), [](const NodeName& a, const NodeName& b) { return a.full < b.full; });
    if (nodes.empty()) return noTree();
    return nodes;
}

bool Tree::has(std::string_view node) const {
    const auto [parent, leaf] = splitLeaf(pathOf(node));
    const Descriptor folder = openFolder(parent);
    struct stat status {};
    return folder && ::fstatat(folder.get(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISSOCK(status.st_mode);
}

Result<int> Tree::connect(std::string_view node, const Limit& limit) const {
    if (node.empty() || node.find('\0') != std::string_view::npos) {
        return Error{ErrorKind::Invalid, "this is no node's name"};
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = pathOf(node);
    Descriptor folder;
    if (path.size() >= sizeof address.sun_path) {
        const auto [parent, leaf] = splitLeaf(path);
        folder = openFolder(parent);
        if (!folder) return connectError(node, errno);
        path = "/proc/self/fd/" + std::to_string(folder.get()) + "/" + leaf;
    }
    if (path.size() >= sizeof address.sun_path) {
        return Error{ErrorKind::NotFound, "there is no node " + std::string(node)};
    }
    path.copy(address.sun_path, path.size());

    Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) return Error{ErrorKind::System, std::string("cannot make a socket: ") + std::strerror(errno)};
    const void* raw = &address;
    while (::connect(fd.get(), static_cast<const sockaddr*>(raw), sizeof address) != 0) {
        if (errno != EAGAIN && errno != EINTR) return connectError(node, errno);
        const Limit pause{std::min(Limit::Clock::now() + kQueueRetry, limit.until), limit.cancellation};
        if (waitFor(-1, 0, pause) == Ready::Interrupted) return Error{ErrorKind::Interrupted, "interrupted"};
        if (limit.passed()) {
            return Error{ErrorKind::TimedOut, "the service takes no connection on " + pathOf(node)};
        }
    }
    return fd.release();
}

std::vector<Result<Tree::Answers>> Tree::readAll(const std::vector<NodeName>& nodes,
                                                 const std::vector<std::string>& attributes, const Limit& limit) const {
    std::vector<Result<Answers>> results;
    results.reserve(nodes.size());
    for (std::size_t begin = 0; begin < nodes.size(); begin += kNodesAtOnce) {
        const std::size_t end = std::min(nodes.size(), begin + kNodesAtOnce);
        std::vector<Result<Node>> connections;
        for (std::size_t at = begin; at < end; ++at) {
            Result<Node> node = Node::connect(*this, nodes[at].full, limit);
            for (const std::string& each : attributes) {
                if (!node) break;
                if (Result<Done> asked = node->askFor(each, limit); !asked) node = asked.error();
            }
            connections.push_back(std::move(node));
        }
        for (Result<Node>& node : connections) {
            if (!node) {
                results.emplace_back(node.error());
                continue;
            }
            Result<Answers> answers = Answers{};
            for (std::size_t count = 0; count < attributes.size() && answers; ++count) {
                Result<std::vector<Value>> values = node->takeAnswer(limit);
                if (values) {
                    answers->push_back(std::move(*values));
                } else {
                    answers = values.error();
                }
            }
            results.push_back(std::move(answers));
        }
    }
    return results;
}

}  // namespace btnode
