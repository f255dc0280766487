#include "platform/host/StdOut.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace {

ssize_t noRoomIsZero(ssize_t written) noexcept {
    return written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : written;
}

template <class Call>
ssize_t repeatInterrupted(Call call) noexcept {
    for (;;) {
        const ssize_t result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

ssize_t plainWrite(int descriptor, std::string_view bytes) noexcept {
    return repeatInterrupted([=] { return write(descriptor, bytes.data(), bytes.size()); });
}

/// A pipe or a terminal. Both wait in write() unless their open file is non-blocking. The one behind descriptor 1 is
/// shared with whoever started us, so one of our own is opened for the time of the write: not kept, since it would keep
/// a pipe's reader from its end-of-file.
ssize_t writeReopened(std::string_view bytes, bool isPipe) noexcept {
    const int own = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (own >= 0) {
        const ssize_t written = plainWrite(own, bytes);
        const int error = errno;
        close(own);
        errno = error;
        return noRoomIsZero(written);
    }
    if (errno == ENXIO) {  // a named pipe without a reader
        errno = EPIPE;
        return -1;
    }
    // No /proc, no free descriptor, or a pipe or terminal of another user. Of a pipe poll() says that there is room for
    // PIPE_BUF bytes, of a terminal only that there is some.
    if (!isPipe || !StdOut::awaitRoom(0)) return 0;
    return noRoomIsZero(plainWrite(STDOUT_FILENO, bytes.substr(0, PIPE_BUF)));
}

}  // namespace

ssize_t StdOut::writeSome(std::string_view bytes) noexcept {
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) != 0) return -1;
    if (S_ISSOCK(status.st_mode)) {
        return noRoomIsZero(repeatInterrupted(
            [=] { return send(STDOUT_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL); }));
    }
    if (S_ISFIFO(status.st_mode)) return writeReopened(bytes, true);
    if (S_ISCHR(status.st_mode) && isatty(STDOUT_FILENO)) return writeReopened(bytes, false);
    return writeWaiting(bytes);  // a file, whose writes wait for nobody
}

ssize_t StdOut::writeWaiting(std::string_view bytes) noexcept {
    return noRoomIsZero(plainWrite(STDOUT_FILENO, bytes));
}

bool StdOut::awaitRoom(int timeoutMs) noexcept {
    pollfd room{STDOUT_FILENO, POLLOUT, 0};
    return poll(&room, 1, timeoutMs) > 0;
}

bool StdOut::isJournal() noexcept {
    static const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    if (!stream || fstat(STDOUT_FILENO, &status) != 0) return false;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char more = 0;
    if (std::sscanf(stream, "%llu:%llu%c", &device, &inode, &more) != 2) return false;
    return status.st_dev == device && status.st_ino == inode;
}
