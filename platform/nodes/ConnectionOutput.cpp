#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

#include "platform/nodes/Connection.h"
#include "platform/nodes/Node.h"

namespace Services::Nodes {

void Connection::send(std::string_view reply) {
    if (!maySend()) return;
    const bool large = reply.size() > Limits::kBacklogBytes;
    const std::size_t before = backlogBytes();
    if (before == 0) reply.remove_prefix(write(reply));
    if (!maySend() || reply.empty()) return;
    if (before + reply.size() > Limits::kBacklogBytes) {
        if (!large || before > Limits::kBacklogBytes) {
            logLimit("replies are not read");
            dropWaiting();
            input_ = Input::Broken;
            return hangUp();
        }
        backlogDue_ = Clock::now() + Limits::kBacklogTime;
    }
    backlog_.append(reply);
    watchOutput(true);
}

std::size_t Connection::write(std::string_view bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t size =
            ::send(socket_.get(), bytes.data() + written, bytes.size() - written, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (size >= 0) {
            written += static_cast<std::size_t>(size);
        } else if (errno == EAGAIN) {
            break;
        } else if (errno != EINTR) {
            hangUp();
            break;
        }
    }
    return written;
}

void Connection::flush() {
    if (!maySend() || backlogBytes() == 0) return;
    const std::size_t written = write(std::string_view(backlog_).substr(backlogHead_));
    if (!maySend() || written == 0) return;
    backlogHead_ += written;
    if (backlogBytes() == 0) {
        backlog_ = std::string();
        backlogHead_ = 0;
        watchOutput(false);
    } else if (backlogHead_ > backlog_.size() / 2) {
        backlog_.erase(0, backlogHead_);
        backlogHead_ = 0;
    }
    // Over the limit, every byte that the client takes gives it the time anew.
    backlogDue_.reset();
    if (backlogBytes() > Limits::kBacklogBytes) backlogDue_ = Clock::now() + Limits::kBacklogTime;
}

void Connection::watchOutput(bool on) {
    if (outputWatched_ == on) return;
    outputWatched_ = on;
    // Only while something is left to write: else each reply that a client reads would be an event.
    const std::uint32_t output = on ? std::uint32_t{EPOLLOUT} : 0u;
    node_->service().engine().modify(*this, socket_.get(), EPOLLIN | EPOLLRDHUP | output);
}

bool Connection::beginWatch(std::string_view first) {
    const Lock lock(lock_);
    if (!maySend() || withdrawn_) return false;
    watching_ = true;
    send(first);
    return watching_;
}

bool Connection::sendChange(std::string_view reply) {
    const Lock lock(lock_);
    if (!watching_) return true;
    send(reply);
    return !settle();
}

}  // namespace Services::Nodes
