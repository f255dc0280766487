#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/nodes/Fd.h"
#include "platform/nodes/Journal.h"
#include "platform/nodes/Mutex.h"
#include "platform/nodes/ServerLock.h"

namespace Services::Nodes {

/// The part of the tree that one server publishes: sockets below ROOT, under the server's lock.
///
/// A socket is made in a folder of the server's own below ROOT whose name begins with a dot, gets its owner and mode
/// and listens there, and is then moved to its place without replacing anything: nobody sees it half-made. Every step
/// below ROOT goes folder by folder without following links. What is published is noted in a journal first, with the
/// socket's inode, so that a process that was killed is cleared up after by the next one that gets the lock, and
/// nothing but its sockets is touched. All functions: any thread, no client can make them wait.
class Tree {
public:
    /// Takes the lock of `server` under the root and clears what a killed process left. Null after a record of level 4
    /// that has the path.
    static std::unique_ptr<Tree> open(std::string_view server);
    /// Clears what a killed process left of `server`, without a word; no effect when another process has its lock.
    static void clear(std::string_view server);
    ~Tree();

    struct Socket {
        Fd listener;
        ino_t inode = 0;
    };
    /// Publishes a listening socket. Nothing, with a reason, when it cannot be: then nothing is left of it.
    std::optional<Socket> publish(std::string_view name, mode_t mode, std::string& reason);
    /// Takes the socket out, unless something else stands there by now, and the folders that are empty then.
    void withdraw(std::string_view name, ino_t inode);
    /// Leaves the tree, when all sockets are withdrawn: only the lock file remains. The lock is held until destruction.
    void close();

private:
    Tree(Fd root, ServerLock lock, std::string_view server);
    bool prepare(std::string& reason);
    void clearLeftovers() REQUIRES(treeLock);
    bool makeSocket(const std::string& staged, mode_t mode, std::string_view topFolder, Socket& made,
                    std::string& reason) REQUIRES(treeLock);
    bool moveIntoPlace(const std::string& staged, std::string_view name, std::string& reason) REQUIRES(treeLock);
    bool removeSocket(std::string_view name, ino_t inode, bool onlyIfDead) REQUIRES(treeLock);
    void removeStale(std::string_view name) REQUIRES(treeLock);
    std::optional<gid_t> groupOf(std::string_view folder) REQUIRES(treeLock);

    /// One for all trees of the process: making a folder and removing it when it is empty must not cross.
    static Mutex treeLock;

    const Fd root_;
    ServerLock lock_ GUARDED_BY(treeLock);
    const std::string stagingName_;
    Fd staging_;
    std::optional<Journal> journal_ GUARDED_BY(treeLock);
    /// Withdrawn sockets that could not be taken out, as on a read-only file system, by name.
    std::map<std::string, ino_t, std::less<>> stale_ GUARDED_BY(treeLock);
    std::uint64_t counter_ GUARDED_BY(treeLock) = 0;
    std::map<std::string, std::optional<gid_t>, std::less<>> groups_ GUARDED_BY(treeLock);
};

}  // namespace Services::Nodes
