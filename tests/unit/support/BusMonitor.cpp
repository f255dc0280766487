#include "tests/unit/support/BusMonitor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tests/unit/support/BusValue.h"

namespace UnitTest {

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "BusMonitor: %s\n", what);
    std::abort();
}

std::string textOf(const char* text) {
    return text ? text : "";
}

std::string callAsText(DBusMessage* message) {
    return textOf(::dbus_message_get_destination(message)) + ' ' + textOf(::dbus_message_get_path(message)) + ' ' +
           textOf(::dbus_message_get_interface(message)) + '.' + textOf(::dbus_message_get_member(message)) + '(' +
           argumentsAsText(message) + ')';
}

void becomeMonitor(::DBusConnection* connection) {
    DBusMessage* call =
        ::dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_MONITORING, "BecomeMonitor");
    DBusMessageIter arguments;
    ::dbus_message_iter_init_append(call, &arguments);
    append(&arguments, BusValue(std::vector<std::string>{}));
    append(&arguments, BusValue(std::uint32_t{0}));
    DBusError error = DBUS_ERROR_INIT;
    DBusMessage* reply = ::dbus_connection_send_with_reply_and_block(connection, call, -1, &error);
    if (!reply) fail(error.message);
    ::dbus_message_unref(reply);
    ::dbus_message_unref(call);
}

}  // namespace

BusMonitor::BusMonitor(const std::string& address) : wake_(::eventfd(0, EFD_CLOEXEC)) {
    ::dbus_threads_init_default();
    DBusError error = DBUS_ERROR_INIT;
    connection_ = ::dbus_connection_open_private(address.c_str(), &error);
    if (!connection_ || !::dbus_bus_register(connection_, &error)) fail(error.message);
    ::dbus_connection_set_exit_on_disconnect(connection_, FALSE);
    becomeMonitor(connection_);
    thread_ = std::thread([this] { run(); });
}

BusMonitor::~BusMonitor() {
    const std::uint64_t one = 1;
    if (::write(wake_, &one, sizeof one) < 0) fail("eventfd");
    thread_.join();
    ::dbus_connection_close(connection_);
    ::dbus_connection_unref(connection_);
    ::close(wake_);
}

void BusMonitor::run() {
    int fd = -1;
    if (!::dbus_connection_get_unix_fd(connection_, &fd)) fail("no descriptor");
    for (;;) {
        const bool connected = ::dbus_connection_read_write(connection_, 0);
        while (DBusMessage* message = ::dbus_connection_pop_message(connection_)) {
            if (::dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                const std::lock_guard guard(lock_);
                calls_.push_back(callAsText(message));
                changed_.notify_all();
            }
            ::dbus_message_unref(message);
        }
        pollfd fds[2] = {{wake_, POLLIN, 0}, {fd, POLLIN, 0}};
        ::poll(fds, connected ? 2 : 1, -1);
        if (fds[0].revents) return;
    }
}

std::vector<std::string> BusMonitor::calls() const {
    const std::lock_guard guard(lock_);
    return calls_;
}

bool BusMonitor::waitFor(const std::string& call, std::chrono::milliseconds limit) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, limit,
                             [&] { return std::find(calls_.begin(), calls_.end(), call) != calls_.end(); });
}

}  // namespace UnitTest
