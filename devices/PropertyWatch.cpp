#include <string>

#include "devices/Bluez.h"
#include "devices/Device.h"
#include "devices/Log.h"
#include "platform/dbus/Util.h"
#include "platform/host/SysLog.h"

// The filter of the device that was added first takes every property message of the connection, whichever object it is
// about, and no other filter sees it. Clients rely on names changing as they do, so the rule stays as it is.
//
// The filter has the device as its user data and takes no reference: its device is in its destructor, at the latest,
// when the last reference goes, and the destructor begins with taking the filter out, which waits for it to end. A
// device that outlives the service has nothing to take out: filters run in the service's dispatch loop only, which is
// over by then, and the connection is closed.

namespace Services::Bluetooth::Linux {

namespace {

constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

std::string matchRule(const Ref<String>& path) {
    return std::string("type='signal', interface='") + kProperties + "', path='" + path->cstr() + "'";
}

}  // namespace

void Device::installPropertyWatch(DBus::DBusConnection* connection) {
    DBusError error;
    DBus::dbus_error_init(&error);
    DBus::dbus_bus_add_match(connection, matchRule(path_).c_str(), &error);
    if (DBus::dbus_error_is_set(&error)) {
        LogRecord(3, Log::device) << "Could not add properties filter for device " << path_ << ": " << error.message;
        return;
    }
    if (!DBus::dbus_connection_add_filter(connection, &Device::onPropertiesMessage, this, nullptr)) {
        LogRecord(3, Log::device) << "Could not install properties changed handler for device" << path_;
    }
}

void Device::removePropertyWatch() {
    const ServiceHold service = holdService();
    if (!service) return;
    DBus::dbus_connection_remove_filter(service.connection, &Device::onPropertiesMessage, this);
    DBusError error;
    DBus::dbus_error_init(&error);
    DBus::dbus_bus_remove_match(service.connection, matchRule(path_).c_str(), &error);
    if (DBus::dbus_error_is_set(&error)) {
        LogRecord(3, Log::device) << "Could not remove properties changed filter for device " << path_ << ": "
                                  << error.message;
    }
}

DBusHandlerResult Device::onPropertiesMessage(DBus::DBusConnection*, DBusMessage* message, void* device) {
    return static_cast<Device*>(device)->propertiesChanged(message);
}

DBusHandlerResult Device::propertiesChanged(DBusMessage* message) {
    dispatchThread_.check();
    // Null for a message without an interface, which replies are.
    const char* const interface = DBus::dbus_message_get_interface(message);
    if (!interface || std::string_view(interface) != kProperties) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    DBusMessageIter argument;
    DBus::dbus_message_iter_init(message, &argument);
    if (DBus::dbus_message_iter_get_arg_type(&argument) != DBUS_TYPE_STRING) return DBUS_HANDLER_RESULT_HANDLED;
    const Ref<String> changed = DBus::Util::getString(&argument);
    if (changed && changed->equals(Bluez::kDevice) && DBus::dbus_message_iter_next(&argument)) {
        DBus::Util::iterDict(&argument, [this](DBusMessageIter* entry) { return onChangedProperty(entry); });
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool Device::onChangedProperty(DBusMessageIter* entry) {
    if (DBus::dbus_message_iter_get_arg_type(entry) != DBUS_TYPE_STRING) return true;
    const Ref<String> key = DBus::Util::getString(entry);
    if (!DBus::dbus_message_iter_next(entry)) return false;
    // A signal that anybody may send: its dictionary need not hold variants.
    if (DBus::dbus_message_iter_get_arg_type(entry) != DBUS_TYPE_VARIANT) return true;
    DBusMessageIter value;
    DBus::dbus_message_iter_recurse(entry, &value);
    if (viewOf(key) != "Alias" || DBus::dbus_message_iter_get_arg_type(&value) != DBUS_TYPE_STRING) return true;
    name_.store(DBus::Util::getString(&value));
    server_->changed(0);
    return true;
}

}  // namespace Services::Bluetooth::Linux
