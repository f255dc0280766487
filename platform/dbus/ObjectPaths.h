#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/dbus/DBus.h"
#include "platform/host/Mutex.h"

namespace Libraries::Platform::Posix::DBus {

/// The objects of a connection, by their exact paths. They stay until the connection is gone. Any thread.
class ObjectPaths {
public:
    /// False when the path is taken.
    bool add(const char* path, const DBusObjectPathVTable& vtable, void* userData);
    /// Offers a message to the object on its path. Dispatch thread.
    DBusHandlerResult run(DBusConnection* connection, DBusMessage* message);
    /// The introspection text of a path as libdbus makes it: the next element of every object path below it.
    std::string introspect(std::string_view path);
    /// Tells each object that its path is given up, and forgets it.
    void clear(DBusConnection* connection);

private:
    struct Entry {
        DBusObjectPathVTable vtable;
        void* userData;
    };
    using Map = std::map<std::string, Entry, std::less<>>;

    Mutex mutex_;
    Map map_ GUARDED_BY(mutex_);
};

}  // namespace Libraries::Platform::Posix::DBus
