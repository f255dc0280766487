#include "btnode/Limit.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <vector>

namespace btnode {

std::unique_ptr<Cancellation> Cancellation::create() {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) return nullptr;
    return std::unique_ptr<Cancellation>(new Cancellation(fd));
}

Cancellation::~Cancellation() {
    ::close(fd_);
}

void Cancellation::raise() const {
    const int saved = errno;
    const std::uint64_t one = 1;
    // Fails only when the counter is full, and then it is raised already.
    [[maybe_unused]] const ssize_t written = ::write(fd_, &one, sizeof one);
    errno = saved;
}

bool Cancellation::raised() const {
    pollfd entry{fd_, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

Limit Limit::in(std::chrono::milliseconds span, const Cancellation* cancellation) {
    return {Clock::now() + span, cancellation};
}

int Limit::pollTime() const {
    if (until == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

Ready waitFor(int fd, short events, const Limit& limit) {
    return waitForAny({fd}, events, limit);
}

Ready waitForAny(std::initializer_list<int> fds, short events, const Limit& limit) {
    std::vector<pollfd> entries = {{limit.cancelFd(), POLLIN, 0}};
    for (const int fd : fds) entries.push_back({fd, events, 0});
    for (;;) {
        const int count = ::poll(entries.data(), entries.size(), limit.pollTime());
        if (count < 0 && errno != EINTR) return Ready::TimedOut;
        if (count > 0) return entries.front().revents != 0 ? Ready::Interrupted : Ready::Yes;
        if (count == 0 && limit.passed()) return Ready::TimedOut;
    }
}

}  // namespace btnode
