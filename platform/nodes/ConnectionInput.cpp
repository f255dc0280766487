#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

#include "platform/nodes/Connection.h"
#include "platform/nodes/Worker.h"

namespace Services::Nodes {

namespace {

/// What may be read from a connection that has no call pending, without looking first: so short that it cannot hold
/// more calls than may be pending. `{"method":""}` and its NUL are the shortest there are.
constexpr std::size_t kBlindBytes = Limits::kPendingCalls * sizeof R"({"method":""})";

/// Reads without waiting. Descriptors that a client sends along never get into the process: the kernel drops them when
/// it is given no room for them.
// NOLINTNEXTLINE(readability-non-const-parameter): the kernel writes to the buffer
ssize_t receiveSome(int socket, char* buffer, std::size_t size, int flags, bool& cut) noexcept {
    iovec part{buffer, size};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    ssize_t got = 0;
    do {
        got = recvmsg(socket, &header, flags | MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    // A read also ends where descriptors were attached; then there may be more, though it was short.
    cut = header.msg_flags & MSG_CTRUNC;
    return got;
}

}  // namespace

std::optional<std::string_view> Connection::receive(Worker& worker) {
    // With calls pending, no byte is read beyond those that may be pending too.
    const bool idle = pendingCalls() == 0 && partial_ == 0;
    const std::size_t size = idle ? kBlindBytes : peek(worker);
    if (size == 0) return {};
    bool cut = false;
    const ssize_t got = receiveSome(socket_.get(), worker.input.data(), size, 0, cut);
    if (got <= 0) {
        readable_ = false;
        if (got == 0) {
            input_ = Input::Ended;
        } else if (errno != EAGAIN) {
            input_ = Input::Ended;
            hangUp();
        }
        return {};
    }
    const std::string_view bytes(worker.input.data(), static_cast<std::size_t>(got));
    // A short read has emptied the socket: what comes after it is an event of its own.
    if (idle) readable_ = cut || readToEnd_ || bytes.size() == size;

    const std::size_t end = bytes.find('\0');
    if (!idle || end == std::string_view::npos || withdrawn_ || backlogBytes() > Limits::kBacklogBytes) {
        enqueue(bytes);
        return {};
    }
    enqueue(bytes.substr(end + 1));
    return bytes.substr(0, end);
}

std::size_t Connection::peek(Worker& worker) {
    // The one call that may be longer than all that waits is the next to be served.
    const std::size_t room =
        calls_ == 0 ? worker.input.size() : std::min(worker.input.size(), Limits::kReadAheadBytes - queuedBytes());
    bool cut = false;
    const ssize_t got = receiveSome(socket_.get(), worker.input.data(), room, MSG_PEEK, cut);
    if (got <= 0) {
        readable_ = false;
        if (got == 0 || errno != EAGAIN) {
            input_ = Input::Ended;
            if (got < 0) hangUp();
        }
        return 0;
    }
    const std::string_view bytes(worker.input.data(), static_cast<std::size_t>(got));
    std::size_t taken = 0;
    for (unsigned more = Limits::kPendingCalls - pendingCalls(); more > 0; --more) {
        const std::size_t end = bytes.find('\0', taken);
        if (end == std::string_view::npos) {
            readable_ = cut || readToEnd_ || bytes.size() == room;
            return bytes.size();
        }
        taken = end + 1;
    }
    if (taken == bytes.size()) readable_ = cut || readToEnd_ || taken == room;
    return taken;
}

bool Connection::isUnread() const {
    // The end of the client's input makes the socket readable, too, though nothing is left in it.
    int bytes = 0;
    return ioctl(socket_.get(), FIONREAD, &bytes) == 0 && bytes > 0;
}

void Connection::enqueue(std::string_view bytes) {
    for (std::size_t end = bytes.find('\0'); end != std::string_view::npos; end = bytes.find('\0')) {
        if (partial_ + end > Limits::kMessageBytes) return breakInput("a message is too long");
        queue_.append(bytes.substr(0, end + 1));
        partial_ = 0;
        ++calls_;
        messageDue_.reset();
        bytes.remove_prefix(end + 1);
    }
    if (partial_ + bytes.size() > Limits::kMessageBytes) return breakInput("a message is too long");
    queue_.append(bytes);
    partial_ += bytes.size();
}

void Connection::dequeue(std::string& message) {
    const std::size_t end = queue_.find('\0', queueHead_);
    message.assign(queue_, queueHead_, end - queueHead_);
    queueHead_ = end + 1;
    --calls_;
    if (queueHead_ == queue_.size()) {
        queue_ = std::string();  // an idle connection has no buffer
        queueHead_ = 0;
    } else if (queueHead_ > queue_.size() / 2) {
        queue_.erase(0, queueHead_);
        queueHead_ = 0;
    }
}

void Connection::breakInput(std::string_view limit) {
    logLimit(limit);
    queue_.resize(queue_.size() - partial_);
    partial_ = 0;
    messageDue_.reset();
    input_ = Input::Broken;
}

}  // namespace Services::Nodes
