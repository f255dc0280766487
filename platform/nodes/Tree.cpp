#include "platform/nodes/Tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "platform/nodes/Folders.h"
#include "platform/nodes/Log.h"
#include "platform/nodes/Root.h"

namespace Services::Nodes {

namespace {

std::string lastError() {
    return std::system_category().message(errno);
}

/// The address of a socket in a folder. Through the descriptor, since an address holds 107 bytes and a path may be
/// longer.
sockaddr_un addressIn(int folder, const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder, name.c_str());
    return address;
}

bool bindIn(int socket, int folder, const std::string& name) {
    const sockaddr_un address = addressIn(folder, name);
    return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// Whether somebody listens on the socket in the folder. In doubt yes.
bool isServed(int folder, const std::string& name) {
    const Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // An own folder descriptor and a short name: a name of up to 255 bytes does not fit into an address.
    const Fd target(openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!probe || !target) return true;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d", target.get());
    const bool connected = connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return connected || errno != ECONNREFUSED;
}

/// Moves a file, never onto another one.
bool renameNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
    if (renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system without that flag: a link does not replace anything either.
    if (linkat(fromFolder, from.c_str(), toFolder, to.c_str(), 0) != 0) return false;
    unlinkat(fromFolder, from.c_str(), 0);
    return true;
}

std::string pathIn(const std::string& root, const std::string& name) {
    return root.back() == '/' ? root + name : root + "/" + name;
}

}  // namespace

Mutex Tree::treeLock;

std::unique_ptr<Tree> Tree::open(std::string_view server) {
    const std::string path = rootPath();
    if (path.empty()) {
        LogRecord(kLogFailure, logHandle())
            << "No root for the node tree: neither NODE_ROOT nor XDG_RUNTIME_DIR is set";
        return nullptr;
    }
    Fd root = openRoot(path);
    if (!root) {
        LogRecord(kLogFailure, logHandle())
            << "Could not use the root of the node tree " << path << ": " << lastError();
        return nullptr;
    }
    std::string reason;
    std::optional<ServerLock> lock = ServerLock::take(root.get(), server, reason);
    if (!lock) {
        LogRecord(kLogFailure, logHandle())
            << "Could not serve " << server << ", " << pathIn(path, ServerLock::fileName(server)) << ": " << reason;
        return nullptr;
    }
    std::unique_ptr<Tree> tree(new Tree(std::move(root), std::move(*lock), server));
    if (tree->prepare(reason)) return tree;
    LogRecord(kLogFailure, logHandle()) << "Could not use the root of the node tree " << path << ": "
                                        << tree->stagingName_ << ": " << reason;
    return nullptr;
}

void Tree::clear(std::string_view server) {
    const std::string path = rootPath();
    Fd root = path.empty() ? Fd() : openRoot(path);
    if (!root) return;
    std::string reason;
    std::optional<ServerLock> lock = ServerLock::take(root.get(), server, reason);
    if (lock) Tree(std::move(root), std::move(*lock), server).prepare(reason);
}

Tree::Tree(Fd root, ServerLock lock, std::string_view server)
    : root_(std::move(root)), lock_(std::move(lock)), stagingName_("." + std::string(server) + ".new") {}

Tree::~Tree() {
    close();
}

bool Tree::prepare(std::string& reason) {
    const Lock lock(treeLock);
    // As every folder of the tree, so that nobody who goes through it is refused. It gives nothing away: a socket here
    // gets its owner and mode before it listens, and the journal is the process's own.
    constexpr mode_t kFolderMode = 0755;
    const bool made = mkdirat(root_.get(), stagingName_.c_str(), kFolderMode) == 0;
    if (made || errno == EEXIST) {
        staging_ = Fd(openat(root_.get(), stagingName_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    if (staging_) {
        fchmod(staging_.get(), kFolderMode);  // the umask may have taken bits, and one that was left may have others
        clearLeftovers();
        journal_ = Journal::create(staging_.get());
        if (journal_) return true;
    }
    reason = lastError();
    return false;
}

void Tree::clearLeftovers() {
    for (const auto& [inode, name] : Journal::read(staging_.get())) removeSocket(name, inode, true);
    // Sockets that were on their way.
    const int copy = fcntl(staging_.get(), F_DUPFD_CLOEXEC, 0);
    DIR* const folder = copy < 0 ? nullptr : fdopendir(copy);
    if (!folder) {
        Fd(copy).reset();
        return;
    }
    while (const dirent* entry = readdir(folder)) {
        struct stat info {};
        if (fstatat(staging_.get(), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISSOCK(info.st_mode)) {
            unlinkat(staging_.get(), entry->d_name, 0);
        }
    }
    closedir(folder);  // and the copy
}

std::optional<Tree::Socket> Tree::publish(std::string_view name, mode_t mode, std::string& reason) {
    const NodePath path(name);
    if (!path.valid()) {
        reason = "not a name for a node";
        return {};
    }
    const Lock lock(treeLock);
    if (!journal_) {
        reason = "the service has stopped";
        return {};
    }
    removeStale(name);
    const std::string staged = "node" + std::to_string(++counter_);
    Socket made;
    if (!makeSocket(staged, mode, path.topFolder(), made, reason)) {
        unlinkat(staging_.get(), staged.c_str(), 0);
        return {};
    }
    if (!journal_->add(made.inode, name)) {
        reason = lastError();
        unlinkat(staging_.get(), staged.c_str(), 0);
        return {};
    }
    if (moveIntoPlace(staged, name, reason)) return made;
    unlinkat(staging_.get(), staged.c_str(), 0);
    journal_->takeBack(made.inode);
    return {};
}

bool Tree::makeSocket(const std::string& staged, mode_t mode, std::string_view topFolder, Socket& made,
                      std::string& reason) {
    made.listener = Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    bool good = made.listener && bindIn(made.listener.get(), staging_.get(), staged);
    if (good) {
        // The owner before the mode; without the right to give the group away it stays the process's own.
        if (const std::optional<gid_t> group = groupOf(topFolder)) {
            [[maybe_unused]] const int given =
                fchownat(staging_.get(), staged.c_str(), static_cast<uid_t>(-1), *group, AT_SYMLINK_NOFOLLOW);
        }
        struct stat info {};
        good = fchmodat(staging_.get(), staged.c_str(), mode, 0) == 0 && listen(made.listener.get(), SOMAXCONN) == 0 &&
               fstatat(staging_.get(), staged.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
        made.inode = info.st_ino;
    }
    if (!good) reason = lastError();
    return good;
}

bool Tree::moveIntoPlace(const std::string& staged, std::string_view name, std::string& reason) {
    const NodePath path(name);
    // Another process may remove a folder that is empty just before the socket comes into it.
    constexpr int kTries = 16;
    for (int tries = 0; tries < kTries; ++tries) {
        std::size_t newFolders = 0;
        const Fd folder = path.makeFolder(root_.get(), newFolders);
        if (folder && renameNoReplace(staging_.get(), staged, folder.get(), path.leaf())) return true;
        const int error = errno;
        if (folder && newFolders > 0) path.removeEmptyFolders(root_.get(), newFolders);
        reason = std::system_category().message(error);
        if (error != ENOENT) return false;
    }
    return false;
}

void Tree::withdraw(std::string_view name, ino_t inode) {
    const Lock lock(treeLock);
    if (!removeSocket(name, inode, false)) {
        stale_.insert_or_assign(std::string(name), inode);
    } else if (journal_) {
        journal_->takeBack(inode);
    }
}

bool Tree::removeSocket(std::string_view name, ino_t inode, bool onlyIfDead) {
    const NodePath path(name);
    if (!path.valid()) return true;
    bool removed = true;
    if (const Fd folder = path.openFolder(root_.get())) {
        struct stat info {};
        const bool ours = fstatat(folder.get(), path.leaf().c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                          S_ISSOCK(info.st_mode) && info.st_ino == inode;
        if (ours && !(onlyIfDead && isServed(folder.get(), path.leaf()))) {
            removed = unlinkat(folder.get(), path.leaf().c_str(), 0) == 0 || errno == ENOENT;
        }
    }
    path.removeEmptyFolders(root_.get());
    return removed;
}

void Tree::removeStale(std::string_view name) {
    const auto found = stale_.find(name);
    if (found == stale_.end() || !removeSocket(name, found->second, true)) return;
    journal_->takeBack(found->second);
    stale_.erase(found);
}

std::optional<gid_t> Tree::groupOf(std::string_view folder) {
    const auto known = groups_.find(folder);
    if (known != groups_.end()) return known->second;
    const std::string name(folder);
    // The buffer has to hold the names of all members; a group of any size that there is fits into the largest.
    constexpr std::size_t kFirstBytes = 4 * 1024;
    constexpr std::size_t kMostBytes = 64 * 1024 * 1024;
    group entry{};
    group* found = nullptr;
    int error = ERANGE;
    for (std::size_t bytes = kFirstBytes; bytes <= kMostBytes && (error == ERANGE || error == EINTR); bytes *= 2) {
        std::vector<char> buffer(bytes);
        error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    }
    std::optional<gid_t> id;
    if (error == 0 && found) id = found->gr_gid;
    // Only an answer is kept: what went wrong now may go well for the next node.
    if (error == 0) groups_.emplace(name, id);
    return id;
}

void Tree::close() {
    const Lock lock(treeLock);
    if (!staging_) return;
    // What could not be taken out is tried again; if it stays, so does its record, for the next process.
    bool clean = true;
    for (const auto& [name, inode] : stale_) clean = removeSocket(name, inode, true) && clean;
    if (clean) Journal::remove(staging_.get());
    journal_.reset();
    staging_.reset();
    unlinkat(root_.get(), stagingName_.c_str(), AT_REMOVEDIR);
    // Not with the object, which a request in progress may keep: who stopped the service may start it again.
    lock_.release();
}

}  // namespace Services::Nodes
