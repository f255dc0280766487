#include "platform/dbus/Watches.h"

#include <poll.h>

namespace Libraries::Platform::Posix::DBus {

bool Watches::attach(::DBusConnection* bus) {
    return ::dbus_connection_set_watch_functions(bus, &Watches::onAdded, &Watches::onRemoved, &Watches::onToggled, this,
                                                 nullptr);
}

void Watches::detach(::DBusConnection* bus) {
    ::dbus_connection_set_watch_functions(bus, nullptr, nullptr, nullptr, nullptr, nullptr);
}

dbus_bool_t Watches::onAdded(DBusWatch* watch, void* self) {
    static_cast<Watches*>(self)->slotOf(watch) = watch;
    return TRUE;
}

void Watches::onRemoved(DBusWatch* watch, void* self) {
    static_cast<Watches*>(self)->slotOf(watch) = nullptr;
}

DBusWatch*& Watches::slotOf(DBusWatch* watch) {
    return (::dbus_watch_get_flags(watch) & DBUS_WATCH_READABLE) != 0 ? read_ : write_;
}

void Watches::handle(short events) {
    unsigned flags = 0;
    if ((events & POLLIN) != 0) flags |= DBUS_WATCH_READABLE;
    if ((events & POLLHUP) != 0) flags |= DBUS_WATCH_HANGUP;
    if ((events & POLLERR) != 0) flags |= DBUS_WATCH_ERROR;
    if (read_ && flags != 0) ::dbus_watch_handle(read_, flags);
    // Reading may have found the connection broken; then the watches are gone.
    if (write_ && (events & POLLOUT) != 0) ::dbus_watch_handle(write_, DBUS_WATCH_WRITABLE);
}

}  // namespace Libraries::Platform::Posix::DBus
