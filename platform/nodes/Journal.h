#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Services::Nodes {

/// Which sockets one server has in the tree, in a file that outlives a killed process. A record is written before its
/// socket comes into its place and taken back after it left, so a record may lack its socket but no socket its record.
/// One line each: "+INODE NAME" and "-INODE". The file is open only while it is written, so that it does not keep the
/// file system from being mounted read-only. Used under its tree's lock.
class Journal {
public:
    /// An empty journal in the folder, in place of an older one; the folder outlives it. Nothing, with errno, on
    /// failure.
    static std::optional<Journal> create(int folder);
    /// The records of an older journal that were not taken back: names by inode.
    static std::unordered_map<ino_t, std::string> read(int folder);
    static void remove(int folder) noexcept;

    /// False, with errno, when it cannot be written; then the journal is as before.
    bool add(ino_t inode, std::string_view name);
    void takeBack(ino_t inode);

private:
    Journal(int folder, const char* name) : folder_(folder), name_(name) {}
    bool append(const std::string& line);
    void compact();

    int folder_;
    const char* name_;
    off_t size_ = 0;
    std::size_t lines_ = 0;
    std::size_t records_ = 0;
};

}  // namespace Services::Nodes
