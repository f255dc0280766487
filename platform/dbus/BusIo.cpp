#include "platform/dbus/BusIo.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <system_error>

#include "platform/dbus/Errors.h"
#include "platform/host/SysLog.h"

namespace Libraries::Platform::Posix::DBus {

namespace {

/// How long close() tries to write what is queued, and waits for the bus to have read it.
constexpr std::chrono::milliseconds kFlushLimit{100};

/// For poll(): rounded up, so that a deadline has passed when it returns.
int millisecondsUntil(BusIo::Clock::time_point until) {
    if (until == BusIo::Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - BusIo::Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

/// Keeps signals away from threads that are started meanwhile: the process's handlers are for its own threads.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_;
};

}  // namespace

BusIo::BusIo() : wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    ::dbus_error_init(&openError_);
}

BusIo::~BusIo() {
    if (wakeFd_ >= 0) ::close(wakeFd_);
    ::dbus_error_free(&openError_);
}

std::shared_ptr<BusIo> BusIo::open(DBusBusType type, DBusError* error) {
    std::shared_ptr<BusIo> io(new BusIo);
    if (io->wakeFd_ < 0 || !io->start(type)) {
        ::dbus_set_error_const(error, DBUS_ERROR_LIMITS_EXCEEDED, "No descriptor or thread left for the connection");
        return nullptr;
    }
    {
        const Interrupt::Waiting waiting(io->lock_.native(), io->opened_);
        MutexLock lock(io->lock_);
        while (io->state_ == State::Opening && !Interrupt::raised(Interrupt::Level::End))
            io->opened_.wait(lock.native());
        if (io->state_ == State::Open) return io;
        if (io->state_ == State::Opening) {
            // libdbus cannot be told to stop connecting. The thread keeps the object until that ends.
            io->state_ = State::Abandoned;
            io->thread_.detach();
            Errors::set(error, Errors::kInterrupted);
            return nullptr;
        }
        if (error) ::dbus_move_error(&io->openError_, error);
    }
    io->thread_.join();
    return nullptr;
}

bool BusIo::start(DBusBusType type) {
    const SignalsBlocked blocked;
    try {
        thread_ = std::thread([self = shared_from_this(), type] { self->run(type); });
    } catch (const std::system_error&) {
        return false;
    }
    ::pthread_setname_np(thread_.native_handle(), "bus-io");
    return true;
}

void BusIo::run(DBusBusType type) {
    SysLog::thdName(String::create("Bus"));
    if (!connect(type)) return;
    serve();
    finish();
}

bool BusIo::connect(DBusBusType type) {
    DBusError error = DBUS_ERROR_INIT;
    ::DBusConnection* const bus = ::dbus_bus_get_private(type, &error);
    if (bus) {
        ::dbus_connection_set_exit_on_disconnect(bus, FALSE);
        // At the limit libdbus would stop reading until messages are freed, so that a dispatch thread that waits for
        // something would keep the replies from coming in. The queue has a limit of its own.
        ::dbus_connection_set_max_received_size(bus, LONG_MAX);
        ::dbus_connection_set_max_received_unix_fds(bus, LONG_MAX);
    }
    State state{};
    {
        const MutexLock lock(lock_);
        if (!bus) openError_ = error;
        if (state_ == State::Opening) state_ = adopt(bus);
        state = state_;
    }
    opened_.notify_all();
    if (bus && state != State::Open) {
        ::dbus_connection_close(bus);
        ::dbus_connection_unref(bus);
    }
    return state == State::Open;
}

BusIo::State BusIo::adopt(::DBusConnection* bus) {
    if (!bus) return State::Failed;
    if (!watches_.attach(bus)) {
        Errors::set(&openError_, Errors::kNoMemory);
        return State::Failed;
    }
    bus_ = bus;
    connected_.store(true);
    return State::Open;
}

void BusIo::serve() {
    short events = 0;  // the answer to Hello may have brought messages along; they are there without
    for (Poll next{}; turn(events, next);) {
        deliver();
        pollfd fds[2] = {{next.fd, next.events, 0}, {wakeFd_, POLLIN, 0}};
        ::poll(fds, 2, next.timeoutMs);
        events = fds[0].revents;
        if (fds[1].revents != 0) {
            eventfd_t count = 0;
            ::eventfd_read(wakeFd_, &count);
        }
    }
    deliver();
}

bool BusIo::turn(short events, Poll& next) {
    const MutexLock lock(lock_);
    polling_ = false;
    watches_.handle(events);
    while (DBusMessage* message = ::dbus_connection_pop_message(bus_)) sort(MessagePtr(message));
    expire();
    // Asked before each poll(): whoever sends may have found the connection broken, and libdbus closed its descriptor.
    if (state_ != State::Open || !::dbus_connection_get_unix_fd(bus_, &next.fd)) return false;
    next.events = POLLIN;
    if (::dbus_connection_has_messages_to_send(bus_)) next.events |= POLLOUT;
    pollsUntil_ = deadlines_.empty() ? Clock::time_point::max() : deadlines_.begin()->first;
    next.timeoutMs = millisecondsUntil(pollsUntil_);
    polling_ = true;
    return true;
}

void BusIo::sort(MessagePtr message) {
    const int type = ::dbus_message_get_type(message.get());
    if (type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR) {
        if (::dbus_message_contains_unix_fds(message.get())) return refuse(message.get());
        deliveries_.queued.push_back({std::move(message), nullptr});
        return;
    }
    const auto entry = calls_.find(::dbus_message_get_reply_serial(message.get()));
    if (entry == calls_.end()) return;  // nobody waits for it any more
    Outstanding outstanding = std::move(entry->second);
    if (outstanding.replyTo == ReplyTo::WaitingThread) {
        deliveries_.completed.emplace_back(std::move(outstanding.call), std::move(message));
    } else {
        deadlines_.erase({outstanding.call->deadline(), entry->first});
        outstanding.call->setReply(std::move(message));
        deliveries_.queued.push_back({nullptr, std::move(outstanding.call)});
    }
    calls_.erase(entry);
}

void BusIo::refuse(DBusMessage* message) {
    // Queued, it would keep its descriptors open, which the process needs for its clients.
    if (::dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL || ::dbus_message_get_no_reply(message))
        return;
    const MessagePtr error(
        ::dbus_message_new_error(message, DBUS_ERROR_NOT_SUPPORTED, "File descriptors are not taken here"));
    if (error) write(error.get(), nullptr);
}

void BusIo::expire() {
    if (deadlines_.empty()) return;
    const auto now = Clock::now();
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
        const auto entry = calls_.find(deadlines_.begin()->second);
        deliveries_.queued.push_back({nullptr, std::move(entry->second.call)});
        calls_.erase(entry);
        deadlines_.erase(deadlines_.begin());
    }
}

void BusIo::deliver() {
    for (auto& [call, reply] : deliveries_.completed) call->complete(std::move(reply));
    deliveries_.completed.clear();
    if (!deliveries_.queued.empty()) queue_.push(deliveries_.queued);
}

void BusIo::finish() {
    ::DBusConnection* bus = nullptr;
    std::vector<DispatchQueue::Item> unanswered;
    {
        // From here on nothing is sent, so libdbus's connection is this thread's alone.
        const MutexLock lock(lock_);
        state_ = State::Ended;
        connected_.store(false);
        bus = std::exchange(bus_, nullptr);
        watches_.detach(bus);
        for (auto& [serial, outstanding] : calls_) {
            if (outstanding.replyTo == ReplyTo::WaitingThread) {
                deliveries_.completed.emplace_back(std::move(outstanding.call), nullptr);
            } else {
                unanswered.push_back({nullptr, std::move(outstanding.call)});
            }
        }
        calls_.clear();
        deadlines_.clear();
    }
    deliver();
    queue_.end(std::move(unanswered));

    takeLeave(bus);
    ::dbus_connection_close(bus);
    ::dbus_connection_unref(bus);
}

void BusIo::takeLeave(::DBusConnection* bus) {
    const auto until = Clock::now() + kFlushLimit;
    const auto ready = [until](int fd, short events) {
        pollfd wait{fd, events, 0};
        return ::poll(&wait, 1, millisecondsUntil(until)) > 0;
    };
    int fd = -1;
    while (::dbus_connection_has_messages_to_send(bus) && ::dbus_connection_get_unix_fd(bus, &fd)) {
        if (!ready(fd, POLLOUT)) return;
        ::dbus_connection_read_write(bus, 0);
    }
    if (!::dbus_connection_get_unix_fd(bus, &fd)) return;
    // A socket that is closed with input unread resets the connection, and the bus loses what it has not read so far.
    ::shutdown(fd, SHUT_WR);
    char unread[4096];
    while (ready(fd, POLLIN) && ::recv(fd, unread, sizeof unread, MSG_DONTWAIT) > 0) continue;
}

bool BusIo::write(DBusMessage* message, dbus_uint32_t* serial) {
    if (state_ != State::Open || !::dbus_connection_send(bus_, message, serial)) return false;
    // Usually libdbus has written it by now. A connection that broke over it is the I/O thread's to end.
    if (::dbus_connection_has_messages_to_send(bus_) || !::dbus_connection_get_is_connected(bus_)) wake();
    return true;
}

bool BusIo::send(DBusMessage* message, dbus_uint32_t* serial) {
    const MutexLock lock(lock_);
    return write(message, serial);
}

bool BusIo::sendCall(DBusMessage* message, const Ref<DBusPendingCall>& call, ReplyTo replyTo, dbus_uint32_t* serial) {
    // libdbus sends a message that was sent before under the same serial; two calls would be taken for one.
    MessagePtr copy;
    if (::dbus_message_get_serial(message) != 0) {
        copy.reset(message = ::dbus_message_copy(message));
        if (!copy) return false;
    }
    const MutexLock lock(lock_);
    if (!write(message, serial)) return false;
    calls_.emplace(*serial, Outstanding{call, replyTo, {}});
    if (replyTo == ReplyTo::DispatchThread) watchDeadline(*call, *serial);
    return true;
}

void BusIo::watchDeadline(const DBusPendingCall& call, dbus_uint32_t serial) {
    if (call.deadline() == DBusPendingCall::kNoDeadline) return;
    deadlines_.emplace(call.deadline(), serial);
    if (call.deadline() < pollsUntil_) wake();
}

bool BusIo::giveUp(dbus_uint32_t serial, LateAnswer late, Slot slot) {
    const MutexLock lock(lock_);
    const auto entry = calls_.find(serial);
    if (entry == calls_.end()) return false;
    if (late) {
        entry->second.call->answerLate(std::move(late));
        entry->second.replyTo = ReplyTo::DispatchThread;
        if (slot) entry->second.slot.emplace(std::move(*slot));
        watchDeadline(*entry->second.call, serial);
    } else {
        calls_.erase(entry);
    }
    return true;
}

void BusIo::wake() {
    if (!polling_) return;
    polling_ = false;
    ::eventfd_write(wakeFd_, 1);
}

void BusIo::close() {
    {
        const MutexLock lock(lock_);
        if (state_ == State::Open) state_ = State::Closing;
        wake();
    }
    thread_.join();
}

}  // namespace Libraries::Platform::Posix::DBus
