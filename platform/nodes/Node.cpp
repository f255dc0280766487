#include "platform/nodes/Node.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/nodes/Connection.h"
#include "platform/nodes/Log.h"
#include "platform/nodes/Termination.h"
#include "platform/nodes/Varlink.h"

namespace Services::Nodes {

namespace {

/// Connections that are accepted before other events get their turn.
constexpr int kAcceptsAtOnce = 64;

void drop(std::vector<Ref<Connection>>& list, const Connection& connection) {
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const Ref<Connection>& one) { return one.get() == &connection; });
    if (found == list.end()) return;
    found->swap(list.back());
    list.pop_back();
}

}  // namespace

Node::Node(Ref<NodeService> service, Ref<String> name, std::uint64_t id, Tree::Socket socket)
    : service_(std::move(service)),
      name_(std::move(name)),
      id_(id),
      urgent_(Termination::isTarget(viewOf(name_))),
      inode_(socket.inode),
      listener_(std::move(socket.listener)) {}

Node::~Node() = default;

bool Node::open() {
    const Lock lock(lock_);
    return watched_ = service_->engine().add(*this, listener_.get(), EPOLLIN);
}

void Node::withdraw(bool stopped) {
    if (!unlinked_.exchange(true)) {
        service_->tree().withdraw(name_->view(), inode_);
        if (urgent_) Termination::ended(*service_);
    }
    std::vector<Ref<Connection>> connections;
    {
        const Lock lock(lock_);
        withdrawn_ = true;
        if (watched_) service_->engine().remove(*this, listener_.get());
        watched_ = false;
        // Who has connected and was not accepted so far reads the end of the stream, too, and no error.
        for (int count = 0; listener_ && count < SOMAXCONN; ++count) {
            Fd waiting(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!waiting) break;
            endStream(std::move(waiting));
        }
        listener_.reset();
        watches_.clear();
        connections = connections_;
    }
    for (const Ref<Connection>& connection : connections) connection->nodeWithdrawn(stopped);
    forgetIfGone();
}

void Node::changed(std::uint64_t argument) {
    std::vector<Ref<Connection>> closed;
    {
        const Lock lock(lock_);
        if (watches_.empty()) return;
        Reply reply;
        reply.begin().add("change", argument).end(true);
        for (const Ref<Connection>& watch : watches_) {
            if (!watch->sendChange(reply.message())) closed.push_back(watch);
        }
    }
    for (const Ref<Connection>& connection : closed) removeConnection(*connection);
}

bool Node::startWatch(Connection& connection, std::string_view first) {
    const Lock lock(lock_);
    if (withdrawn_) return false;
    // Under the lock, so that no change comes before the first reply or between it and the list.
    if (connection.beginWatch(first)) watches_.emplace_back(&connection);
    return true;
}

void Node::endWatch(Connection& connection) {
    const Lock lock(lock_);
    drop(watches_, connection);
}

void Node::removeConnection(Connection& connection) {
    service_->engine().admission().removeConnection(connection.user());
    {
        const Ref<Connection> removed(&connection);  // given back after the lock
        const Lock lock(lock_);
        drop(watches_, connection);
        drop(connections_, connection);
    }
    forgetIfGone();
}

void Node::forgetIfGone() {
    {
        const Lock lock(lock_);
        if (!withdrawn_ || !connections_.empty()) return;
    }
    service_->forget(*this);
}

void Node::onEvents(std::uint32_t, Worker&) {
    const Lock lock(lock_);
    acceptAll();
}

void Node::onDeadline() {
    const Lock lock(lock_);
    acceptAll();
}

void Node::acceptAll() {
    Engine& engine = service_->engine();
    for (int accepted = 0; watched_; ++accepted) {
        if (accepted == kAcceptsAtOnce) {
            // Edge-triggered: setting it anew makes the rest an event of its own.
            engine.modify(*this, listener_.get(), EPOLLIN);
            return;
        }
        Fd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            admit(std::move(socket));
            continue;
        }
        const int error = errno;
        if (error == EAGAIN) return;
        if (error == EINTR || error == ECONNABORTED) continue;
        LogRecord(kLogDegraded, logHandle())
            << "Connection refused: " << name_ << ": " << std::system_category().message(error);
        const bool refused = (error == EMFILE || error == ENFILE) && engine.refuseNext(listener_.get());
        if (!refused) {
            engine.callAt(*this, Clock::now() + Limits::kAcceptRetry);
            return;
        }
    }
}

void Node::admit(Fd socket) {
    ucred client{};
    socklen_t size = sizeof client;
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &client, &size) != 0) return endStream(std::move(socket));
    Admission& admission = service_->engine().admission();
    if (const char* limit = admission.addConnection(client.uid)) {
        {
            LogRecord record(kLogDegraded, logHandle());
            record << "Connection refused: " << name_ << ": " << limit << ", user ";
            record.number(client.uid);
        }
        return endStream(std::move(socket));  // the line is there when the client sees its end
    }
    const Ref<Connection> connection(new Connection(this, client.uid, std::move(socket)));
    connections_.push_back(connection);
    if (connection->open()) return;
    LogRecord(kLogDegraded, logHandle()) << "Connection refused: " << name_ << ": "
                                         << std::system_category().message(errno);
    connections_.pop_back();
    admission.removeConnection(client.uid);
}

bool Node::finish(int&) {
    return true;
}

void Node::abandon() {
    withdraw(true);
}

}  // namespace Services::Nodes
