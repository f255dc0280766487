#include "platform/nodes/ServerLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace Services::Nodes {

namespace {

/// The process id in the file, as text; empty when there is none.
std::string readHolder(int file) {
    std::array<char, 16> text{};
    const ssize_t size = pread(file, text.data(), text.size(), 0);
    const std::string_view read(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return std::string(read.substr(0, read.find_first_not_of("0123456789")));
}

}  // namespace

std::string ServerLock::fileName(std::string_view server) {
    return "." + std::string(server) + ".lock";
}

std::optional<ServerLock> ServerLock::take(int root, std::string_view server, std::string& reason) {
    constexpr mode_t kMode = 0644;  // everybody may see who serves
    Fd file(openat(root, fileName(server).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kMode));
    struct stat info {};
    if (!file || fstat(file.get(), &info) != 0) {
        reason = std::system_category().message(errno);
        return {};
    }
    if (!S_ISREG(info.st_mode)) {
        reason = "not a regular file";
        return {};
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            reason = std::system_category().message(errno);
            return {};
        }
        const std::string holder = readHolder(file.get());
        reason = holder.empty() ? "served by another process" : "served by process " + holder;
        return {};
    }
    // Only the refused one reads it: that it could not be written hinders nobody.
    const std::string own = std::to_string(getpid()) + "\n";
    if (ftruncate(file.get(), 0) == 0) {
        [[maybe_unused]] const ssize_t written = pwrite(file.get(), own.data(), own.size(), 0);
    }
    return ServerLock(std::move(file));
}

ServerLock::~ServerLock() {
    if (file_) [[maybe_unused]]
        const int truncated = ftruncate(file_.get(), 0);
}

}  // namespace Services::Nodes
