#include "platform/nodes/Connection.h"

#include <sys/epoll.h>

#include <cerrno>

#include "platform/nodes/Log.h"
#include "platform/nodes/Methods.h"
#include "platform/nodes/Node.h"
#include "platform/nodes/Worker.h"

namespace Services::Nodes {

Connection::Connection(Ref<Node> node, uid_t user, Fd socket)
    : node_(std::move(node)), user_(user), socket_(std::move(socket)) {}

Connection::~Connection() = default;

bool Connection::open() {
    const Lock lock(lock_);
    if (node_->service().engine().add(*this, socket_.get(), EPOLLIN | EPOLLRDHUP)) return true;
    const int error = errno;
    endStream(std::move(socket_));
    errno = error;
    return false;
}

void Connection::onEvents(std::uint32_t events, Worker& worker) {
    bool closed = false;
    bool watchEnded = false;
    bool lastUseEnded = false;
    {
        const Lock lock(lock_);
        if (!isOpen()) return;
        if (events & (EPOLLHUP | EPOLLERR)) hangUp();
        if (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) readToEnd_ = true;
        if (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) readable_ = true;
        if (events & EPOLLOUT) flush();
        pump(worker);
        watchEnded = std::exchange(watchEnded_, false);
        lastUseEnded = std::exchange(lastUseEnded_, false);
        closed = settle();
    }
    if (lastUseEnded) node_->service().afterLastUse();
    if (watchEnded) node_->endWatch(*this);
    if (closed) node_->removeConnection(*this);
}

void Connection::pump(Worker& worker) {
    for (bool first = true; isOpen(); first = false) {
        std::optional<std::string_view> message;
        const bool reads = readable_ && wantsInput();
        const bool serves = mayServe();
        // Not before the first round: most events bring one call, which sees to it itself if it may block. Nor when
        // nothing is left to do: a crowd of clients that hang up needs no crowd of threads.
        if (!first && (reads || serves)) node_->service().engine().ensureFollower();
        if (reads) message = receive(worker);
        if (!message && serves) {
            dequeue(worker.message);
            message = worker.message;
        }
        if (message) {
            serve(*message, worker);
        } else if (!reads) {
            break;
        }
    }
    if (readable_ && pendingCalls() >= Limits::kPendingCalls && !(logged_ & LoggedPending) && isUnread()) {
        logOnce(LoggedPending, "too many calls are pending");
    }
}

bool Connection::mayServe() const {
    return isOpen() && calls_ > 0 && !serving_ && !watching_ && !withdrawn_ && backlogBytes() <= Limits::kBacklogBytes;
}

bool Connection::wantsInput() const {
    if (!isOpen() || withdrawn_ || input_ != Input::Open || pendingCalls() >= Limits::kPendingCalls) return false;
    return calls_ == 0 || queuedBytes() < Limits::kReadAheadBytes;
}

void Connection::serve(std::string_view message, Worker& worker) {
    Serving serving;
    // Until it is known to be oneway, a call is one whose answer somebody waits for.
    if (hungUp_) serving.token.raise(Interrupt::Level::HangUp);
    serving_ = &serving;
    lock_.unlock();

    NodeService::Use use(node_->service());
    const std::optional<Call> call = parseCall(worker.envelope, message);
    Outcome outcome = Outcome::Dropped;
    if (call && use.granted() && begin(serving, call->oneway)) {
        const Interrupt::Bind bind(serving.token);
        outcome = serveCall(*node_, use, *call, worker);
        if (outcome == Outcome::Watch && !node_->startWatch(*this, worker.reply.message())) {
            withdrawnError(worker.reply);
            outcome = Outcome::Answered;
        }
    }

    lock_.lock();
    serving_ = nullptr;
    if (!call || outcome == Outcome::Lost) {
        dropWaiting();
        input_ = Input::Broken;
    } else {
        logLimits(outcome);
        if (!call->oneway && outcome != Outcome::Watch && outcome != Outcome::Dropped) send(worker.reply.message());
    }
    if (use.end()) lastUseEnded_ = true;
}

bool Connection::begin(Serving& serving, bool oneway) {
    if (oneway) {
        // The token may have been raised for a call whose answer nobody waits for any more. This one has none.
        const Lock lock(lock_);
        serving.oneway = true;
        if (stopped_) return false;
        if (hungUp_) {
            serving.token.reset();
            serving.token.raise(Interrupt::Level::Unheard);
        }
        return true;
    }
    return serving.token.level() == Interrupt::Level::None;
}

void Connection::hangUp() {
    hungUp_ = true;
    readToEnd_ = readable_ = true;
    backlog_ = std::string();
    backlogHead_ = 0;
    backlogDue_.reset();
    if (serving_) {
        serving_->token.raise(serving_->oneway ? Interrupt::Level::Unheard : Interrupt::Level::HangUp);
    }
    if (std::exchange(watching_, false)) watchEnded_ = true;
}

void Connection::nodeWithdrawn(bool stopped) {
    bool closed = false;
    {
        const Lock lock(lock_);
        if (!isOpen()) return;
        withdrawn_ = true;
        dropWaiting();
        if (std::exchange(watching_, false)) {
            Reply reply;
            send(withdrawnError(reply));
        }
        if (stopped && serving_ && !node_->urgent()) {
            stopped_ = true;
            serving_->token.raise(Interrupt::Level::End);
            close();
            closed = true;
        } else {
            closed = settle();
        }
    }
    if (closed) node_->removeConnection(*this);
}

void Connection::dropWaiting() {
    queue_ = std::string();
    queueHead_ = 0;
    partial_ = 0;
    calls_ = 0;
    messageDue_.reset();
}

bool Connection::settle() {
    if (!isOpen()) return false;
    const bool inputOver = withdrawn_ || input_ != Input::Open;
    if (inputOver && pendingCalls() == 0 && backlogBytes() == 0) {
        close();
        return true;
    }
    // A message that the service leaves unread has all the time it needs.
    if (partial_ == 0 || !wantsInput()) {
        messageDue_.reset();
    } else if (!messageDue_) {
        messageDue_ = Clock::now() + Limits::kMessageTime;
    }
    Engine& engine = node_->service().engine();
    if (messageDue_) engine.callAt(*this, *messageDue_);
    if (backlogDue_) engine.callAt(*this, *backlogDue_);
    return false;
}

void Connection::close() {
    node_->service().engine().remove(*this, socket_.get());
    endStream(std::move(socket_));
    dropWaiting();
    backlog_ = std::string();
    backlogHead_ = 0;
}

void Connection::onDeadline() {
    bool closed = false;
    {
        const Lock lock(lock_);
        if (!isOpen()) return;
        const Clock::time_point now = Clock::now();
        if (messageDue_ && *messageDue_ <= now) breakInput("a message took too long");
        if (backlogDue_ && *backlogDue_ <= now) {
            logLimit("replies are not read");
            dropWaiting();
            input_ = Input::Broken;
            hangUp();
        }
        closed = settle();
    }
    if (closed) node_->removeConnection(*this);
}

bool Connection::finish(int& fd) {
    const Lock lock(lock_);
    if (isOpen() && backlogBytes() > 0) flush();
    if (!isOpen() || backlogBytes() == 0) return true;
    fd = socket_.get();
    return false;
}

void Connection::abandon() {
    {
        const Lock lock(lock_);
        if (!isOpen()) return;
        close();
    }
    node_->removeConnection(*this);
}

void Connection::logLimits(Outcome outcome) {
    if (outcome == Outcome::Busy) logOnce(LoggedBusy, "too many requests are in progress");
    if (outcome == Outcome::TooDeep) logOnce(LoggedDepth, "values are nested too deep");
}

void Connection::logOnce(Logged limit, std::string_view what) {
    if (logged_ & limit) return;
    logged_ |= limit;
    logLimit(what);
}

void Connection::logLimit(std::string_view what) const {
    LogRecord(kLogDegraded, logHandle()) << "Connection at its limit: " << node_->name() << ": " << what;
}

}  // namespace Services::Nodes
