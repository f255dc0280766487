#include "platform/nodes/ServerLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <system_error>

#include "platform/host/LogLine.h"

namespace Services::Nodes {

namespace {

/// The process id in the file, 0 when there is none.
std::uint64_t readHolder(int file) {
    std::array<char, 16> text{};
    const ssize_t size = pread(file, text.data(), text.size(), 0);
    std::uint64_t process = 0;
    if (size > 0) std::from_chars(text.data(), text.data() + size, process);
    return process;
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
        const std::uint64_t holder = readHolder(file.get());
        reason = holder == 0 ? "served by another process" : "served by process " + LogLine::number(holder);
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
