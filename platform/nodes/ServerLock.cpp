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
    // Who may open the file may lock it, and so keep the service from starting: that is nobody else.
    constexpr mode_t kMode = 0600;
    const std::string name = fileName(server);
    // Open for reading: no file that is open for writing keeps the file system from being mounted read-only.
    Fd file(openat(root, name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kMode));
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
    fchmod(file.get(), kMode);  // the umask may have taken bits, and a file that was left may have others
    const Fd writable(openat(root, name.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!writable) {
        reason = std::system_category().message(errno);
        return {};
    }
    // Only a refused process reads it: that it could not be written hinders nobody.
    const std::string own = std::to_string(getpid()) + "\n";
    [[maybe_unused]] const ssize_t written = ::write(writable.get(), own.data(), own.size());
    return ServerLock(std::move(file));
}

}  // namespace Services::Nodes
