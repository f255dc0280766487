#pragma once

#include <dbus/dbus.h>

namespace Libraries::Platform::Posix::DBus {

/// The two watches of libdbus's connection. With them libdbus takes over what poll() said; without, each of its turns
/// polls once more. No thread of its own: calls are made, and libdbus calls back, under the connection's lock.
class Watches {
public:
    Watches() = default;
    Watches(const Watches&) = delete;
    Watches& operator=(const Watches&) = delete;

    /// Takes the watches. False when out of memory.
    bool attach(::DBusConnection* bus);
    void detach(::DBusConnection* bus);
    /// Reads and writes as far as poll()'s events allow.
    void handle(short events);

private:
    static dbus_bool_t onAdded(DBusWatch* watch, void* self);
    static void onRemoved(DBusWatch* watch, void* self);
    static void onToggled(DBusWatch*, void*) {}
    DBusWatch*& slotOf(DBusWatch* watch);

    DBusWatch* read_ = nullptr;
    DBusWatch* write_ = nullptr;
};

}  // namespace Libraries::Platform::Posix::DBus
