#include "btnode/Connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace btnode {

namespace {

// Far above any answer of a node; keeps a stranger on the socket from filling the memory.
constexpr std::size_t kMaxReply = 64UL * 1024 * 1024;
constexpr std::size_t kChunk = 16UL * 1024;

Error limitError(Ready how) {
    if (how == Ready::Interrupted) return {ErrorKind::Interrupted, "interrupted"};
    return {ErrorKind::TimedOut, "no answer within the time limit"};
}

Error gone() {
    return {ErrorKind::Gone, "the connection was closed before the answer came",
            "The node was withdrawn, or the service ended."};
}

Error systemError(const char* what) {
    return {ErrorKind::System, std::string(what) + ": " + std::strerror(errno)};
}

}  // namespace

Connection::~Connection() {
    if (fd_ >= 0) ::close(fd_);
}

Connection::Connection(Connection&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      received_(std::move(other.received_)),
      searched_(std::exchange(other.searched_, 0)) {}

Connection& Connection::operator=(Connection&& other) noexcept {
    std::swap(fd_, other.fd_);
    std::swap(received_, other.received_);
    std::swap(searched_, other.searched_);
    return *this;
}

Result<Done> Connection::send(std::string_view message, const Limit& limit) {
    while (!message.empty()) {
        const ssize_t sent = ::send(fd_, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            message.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            if (const Ready how = waitFor(fd_, POLLOUT, limit); how != Ready::Yes) return limitError(how);
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return gone();
        } else if (errno != EINTR) {
            return systemError("cannot send to the node");
        }
    }
    return Done{};
}

Result<std::string> Connection::receive(const Limit& limit) {
    for (;;) {
        const std::size_t end = received_.find('\0', searched_);
        if (end != std::string::npos) {
            std::string message = received_.substr(0, end);
            received_.erase(0, end + 1);
            searched_ = 0;
            return message;
        }
        searched_ = received_.size();
        if (received_.size() > kMaxReply) return Error{ErrorKind::Protocol, "the answer is too long"};
        // Asked for even when bytes are there: a stream of them must not outlast the limit.
        if (const Ready how = waitFor(fd_, POLLIN, limit); how != Ready::Yes) return limitError(how);
        received_.resize(searched_ + kChunk);
        const ssize_t count = ::recv(fd_, received_.data() + searched_, kChunk, MSG_DONTWAIT);
        const int failure = errno;
        received_.resize(searched_ + (count > 0 ? static_cast<std::size_t>(count) : 0));
        if (count == 0 || (count < 0 && failure == ECONNRESET)) return gone();
        errno = failure;
        if (count < 0 && failure != EAGAIN && failure != EINTR) return systemError("cannot read from the node");
    }
}

}  // namespace btnode
