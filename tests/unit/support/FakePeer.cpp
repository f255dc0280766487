#include "tests/unit/support/FakePeer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace UnitTest {

namespace {

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "FakePeer: %s\n", what.c_str());
    std::abort();
}

FakePeer::Message own(DBusMessage* message) {
    if (!message) fail("a message could not be made; is a name malformed?");
    return FakePeer::Message(message, &::dbus_message_unref);
}

std::string textOf(const char* text) {
    return text ? text : "";
}

void fill(DBusMessage* message, const FakePeer::Build& build) {
    if (!build) return;
    DBusMessageIter iter;
    ::dbus_message_iter_init_append(message, &iter);
    build(&iter);
}

std::string propertyKey(const std::string& path, const std::string& interface, const std::string& name) {
    return path + ' ' + interface + ' ' + name;
}

const char* const kProperties = "org.freedesktop.DBus.Properties";

}  // namespace

FakePeer::Request::Request(FakePeer* peer, Message message) : peer_(peer), message_(std::move(message)) {
    auto call = std::make_shared<Call>();
    call->path = textOf(::dbus_message_get_path(message_.get()));
    call->interface = textOf(::dbus_message_get_interface(message_.get()));
    call->member = textOf(::dbus_message_get_member(message_.get()));
    call->sender = textOf(::dbus_message_get_sender(message_.get()));
    call->arguments = argumentsAsText(message_.get());
    call_ = std::move(call);
}

void FakePeer::Request::reply(const Build& build) const {
    const Message reply = own(::dbus_message_new_method_return(message_.get()));
    fill(reply.get(), build);
    peer_->send(reply);
}

void FakePeer::Request::error(const std::string& name, const std::string& text) const {
    peer_->send(own(::dbus_message_new_error(message_.get(), name.c_str(), text.c_str())));
}

FakePeer::FakePeer(const std::string& address, const std::string& name) : wake_(::eventfd(0, EFD_CLOEXEC)) {
    ::dbus_threads_init_default();
    DBusError error = DBUS_ERROR_INIT;
    connection_ = ::dbus_connection_open_private(address.c_str(), &error);
    if (!connection_ || !::dbus_bus_register(connection_, &error)) fail(error.message);
    ::dbus_connection_set_exit_on_disconnect(connection_, FALSE);
    if (::dbus_bus_request_name(connection_, name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
        fail("the name " + name + " is taken");
    uniqueName_ = ::dbus_bus_get_unique_name(connection_);
    thread_ = std::thread([this] { run(); });
}

FakePeer::~FakePeer() {
    post([this] { ends_ = true; });
    thread_.join();
    ::dbus_connection_close(connection_);
    ::dbus_connection_unref(connection_);
    ::close(wake_);
}

void FakePeer::run() {
    int fd = -1;
    const bool hasFd = ::dbus_connection_get_unix_fd(connection_, &fd);
    for (;;) {
        {
            std::vector<Job> jobs;  // with what they hold, such as descriptors of messages, gone before the wait
            {
                const std::lock_guard guard(lock_);
                jobs.swap(jobs_);
            }
            for (const Job& job : jobs) job();
        }
        const bool connected = ::dbus_connection_read_write(connection_, 0);
        takeMessages();
        if (ends_) return;
        pollfd fds[2] = {{wake_, POLLIN, 0}, {fd, POLLIN, 0}};
        if (::dbus_connection_has_messages_to_send(connection_)) fds[1].events |= POLLOUT;
        // A lost connection is readable for ever; only the test's jobs matter then.
        ::poll(fds, hasFd && connected ? 2 : 1, -1);
        std::uint64_t count;
        if (fds[0].revents && ::read(wake_, &count, sizeof count) < 0) fail("eventfd");
    }
}

void FakePeer::post(Job job) {
    {
        const std::lock_guard guard(lock_);
        jobs_.push_back(std::move(job));
    }
    const std::uint64_t one = 1;
    if (::write(wake_, &one, sizeof one) < 0) fail("eventfd");
}

void FakePeer::takeMessages() {
    while (DBusMessage* message = ::dbus_connection_pop_message(connection_)) take(own(message));
}

void FakePeer::take(Message message) {
    const int type = ::dbus_message_get_type(message.get());
    if (type == DBUS_MESSAGE_TYPE_METHOD_CALL) {
        serve(std::move(message));
    } else if (const auto entry = waiting_.find(::dbus_message_get_reply_serial(message.get()));
               type != DBUS_MESSAGE_TYPE_SIGNAL && entry != waiting_.end()) {
        entry->second->set_value(std::move(message));
        waiting_.erase(entry);
    }
}

void FakePeer::serve(Message message) {
    const Request request(this, std::move(message));
    Handler handler;
    {
        const std::lock_guard guard(lock_);
        calls_.push_back(request.call());
        const auto entry = handlers_.find(request.call().interface + '.' + request.call().member);
        if (entry != handlers_.end()) handler = entry->second;
    }
    changed_.notify_all();
    if (handler)
        handler(request);
    else if (!serveProperty(request))
        request.error(DBUS_ERROR_UNKNOWN_METHOD, "no handler for " + request.call().text());
}

bool FakePeer::serveProperty(const Request& request) {
    if (request.call().interface != kProperties || request.call().member != "Get") return false;
    const char* interface = nullptr;
    const char* name = nullptr;
    if (!::dbus_message_get_args(request.message_.get(), nullptr, DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING, &name,
                                 DBUS_TYPE_INVALID))
        return false;
    std::unique_ptr<BusValue> value;
    {
        const std::lock_guard guard(lock_);
        const auto entry = properties_.find(propertyKey(request.call().path, interface, name));
        if (entry != properties_.end()) value = std::make_unique<BusValue>(entry->second);
    }
    if (value)
        request.reply([&](DBusMessageIter* iter) { appendVariant(iter, *value); });
    else
        request.error(DBUS_ERROR_INVALID_ARGS, "No such property '" + std::string(name) + "'");
    return true;
}

void FakePeer::on(const std::string& interface, const std::string& member, Handler handler) {
    const std::lock_guard guard(lock_);
    handlers_[interface + '.' + member] = std::move(handler);
}

FakePeer::Handler FakePeer::answers(Build build) {
    return [build = std::move(build)](const Request& request) { request.reply(build); };
}

FakePeer::Handler FakePeer::fails(std::string name, std::string text) {
    return [name = std::move(name), text = std::move(text)](const Request& request) { request.error(name, text); };
}

FakePeer::Handler FakePeer::holds() {
    return [this](const Request& request) {
        {
            const std::lock_guard guard(lock_);
            held_.push_back(request);
        }
        changed_.notify_all();
    };
}

std::unique_ptr<FakePeer::Request> FakePeer::takeHeld(std::chrono::milliseconds limit) {
    std::unique_lock guard(lock_);
    if (!changed_.wait_for(guard, limit, [this] { return !held_.empty(); })) return nullptr;
    auto request = std::make_unique<Request>(held_.front());
    held_.pop_front();
    return request;
}

void FakePeer::setProperty(const std::string& path, const std::string& interface, const std::string& name,
                           BusValue value) {
    const std::lock_guard guard(lock_);
    properties_.insert_or_assign(propertyKey(path, interface, name), std::move(value));
}

void FakePeer::removeProperty(const std::string& path, const std::string& interface, const std::string& name) {
    const std::lock_guard guard(lock_);
    properties_.erase(propertyKey(path, interface, name));
}

std::vector<FakePeer::Call> FakePeer::calls() const {
    const std::lock_guard guard(lock_);
    return calls_;
}

std::size_t FakePeer::count(const std::string& interface, const std::string& member) const {
    const std::lock_guard guard(lock_);
    return static_cast<std::size_t>(std::count_if(calls_.begin(), calls_.end(), [&](const Call& call) {
        return call.interface == interface && call.member == member;
    }));
}

void FakePeer::forgetCalls() {
    const std::lock_guard guard(lock_);
    calls_.clear();
}

bool FakePeer::waitForCalls(const std::string& interface, const std::string& member, std::size_t number,
                            std::chrono::milliseconds limit) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit, [&] {
        return static_cast<std::size_t>(std::count_if(calls_.begin(), calls_.end(), [&](const Call& call) {
                   return call.interface == interface && call.member == member;
               })) >= number;
    });
}

void FakePeer::emit(const std::string& path, const std::string& interface, const std::string& member,
                    const Build& build, const std::string& destination) {
    const Message signal = own(::dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str()));
    if (!destination.empty()) ::dbus_message_set_destination(signal.get(), destination.c_str());
    fill(signal.get(), build);
    send(signal);
}

FakePeer::Message FakePeer::call(const std::string& destination, const std::string& path, const std::string& interface,
                                 const std::string& member, const Build& build, std::chrono::milliseconds limit) {
    const Message message =
        own(::dbus_message_new_method_call(destination.c_str(), path.c_str(), interface.c_str(), member.c_str()));
    fill(message.get(), build);
    return call(message, limit);
}

FakePeer::Message FakePeer::call(Message message, std::chrono::milliseconds limit) {
    const auto answer = std::make_shared<std::promise<Message>>();
    auto future = answer->get_future();
    post([this, message, answer] {
        dbus_uint32_t serial = 0;
        if (::dbus_connection_send(connection_, message.get(), &serial)) waiting_[serial] = answer;
    });
    return future.wait_for(limit) == std::future_status::ready ? future.get() : nullptr;
}

void FakePeer::send(Message message) {
    post([this, message = std::move(message)] { ::dbus_connection_send(connection_, message.get(), nullptr); });
}

void FakePeer::flush() {
    std::promise<void> done;
    post([this, &done] {
        ::dbus_connection_flush(connection_);
        done.set_value();
    });
    done.get_future().wait();
}

}  // namespace UnitTest
