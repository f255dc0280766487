#include "platform/dbus/ObjectPaths.h"

#include <utility>

namespace Libraries::Platform::Posix::DBus {

bool ObjectPaths::add(const char* path, const DBusObjectPathVTable& vtable, void* userData) {
    const MutexLock lock(mutex_);
    return map_.try_emplace(path, Entry{vtable, userData}).second;
}

DBusHandlerResult ObjectPaths::run(DBusConnection* connection, DBusMessage* message) {
    const char* const path = ::dbus_message_get_path(message);
    if (!path) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    std::optional<Entry> entry;
    {
        const MutexLock lock(mutex_);
        if (const auto found = map_.find(std::string_view(path)); found != map_.end()) entry = found->second;
    }
    if (!entry) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    return entry->vtable.message_function(connection, message, entry->userData);
}

std::string ObjectPaths::introspect(std::string_view path) {
    std::string prefix(path);
    if (prefix != "/") prefix += '/';
    std::string text = DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE "<node>\n";
    std::string_view last;
    const MutexLock lock(mutex_);
    for (auto entry = map_.upper_bound(prefix); entry != map_.end(); ++entry) {
        const std::string_view below = entry->first;
        if (below.substr(0, prefix.size()) != prefix) break;
        const std::string_view name = below.substr(prefix.size(), below.find('/', prefix.size()) - prefix.size());
        if (name == last) continue;
        last = name;
        text.append("  <node name=\"").append(name).append("\"/>\n");
    }
    return text + "</node>\n";
}

void ObjectPaths::clear(DBusConnection* connection) {
    Map map;
    {
        const MutexLock lock(mutex_);
        map.swap(map_);
    }
    for (const auto& [path, entry] : map) {
        if (entry.vtable.unregister_function) entry.vtable.unregister_function(connection, entry.userData);
    }
}

}  // namespace Libraries::Platform::Posix::DBus
