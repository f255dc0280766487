#include "adapters/Adapters.h"
#include "devices/Devices.h"
#include "platform/dbus/Util.h"
#include "platform/host/SysLog.h"
#include "service/Service.h"

// Which adapters and devices there are: asked once at the start, followed by signals from then on. Both roads lead
// through addInterfaces(), so an object is treated the same however it became known. What does not have the expected
// type is passed over without a word: libdbus vouches for the form of a message, not for its signature.

namespace Services::Bluetooth::Linux {

namespace {

constexpr const char* kBluez = "org.bluez";
constexpr const char* kObjectManagerPath = "/";
constexpr const char* kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kObjectManagerRule = "type='signal',path='/',interface='org.freedesktop.DBus.ObjectManager'";
constexpr std::string_view kAdapterInterface = "org.bluez.Adapter1";
constexpr std::string_view kDeviceInterface = "org.bluez.Device1";
constexpr std::string_view kAddressProperty = "Address";
constexpr int kManagedObjectsTimeoutMs = 1000;

/// Null stands for an absent header field.
std::string_view text(const char* field) {
    return field ? std::string_view(field) : std::string_view();
}

/// The text under the iterator; null when it is of another type.
Ref<String> stringAt(DBusMessageIter* iter) {
    if (DBus::dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_STRING) return nullptr;
    return DBus::Util::getString(iter);
}

Ref<String> objectPathAt(DBusMessageIter* iter) {
    if (DBus::dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_OBJECT_PATH) return nullptr;
    return DBus::Util::getString(iter);
}

/// The text of the first readable "Address" among the properties; null when there is none.
Ref<String> findAddress(DBusMessageIter* properties) {
    Ref<String> address;
    DBus::Util::iterDict(properties, [&address](DBusMessageIter* property) {
        const Ref<String> name = stringAt(property);
        if (!name || !name->equals(kAddressProperty)) return true;
        // Recursing into anything but a container is fatal in libdbus.
        if (!DBus::dbus_message_iter_next(property) ||
            DBus::dbus_message_iter_get_arg_type(property) != DBUS_TYPE_VARIANT) {
            return true;
        }
        DBusMessageIter value;
        DBus::dbus_message_iter_recurse(property, &value);
        address = stringAt(&value);
        return !address;
    });
    return address;
}

}  // namespace

bool Service::discoverExisting() {
    LogRecord(1, logHandle_) << "Searching for existing adapters and devices";
    DBusError error;
    DBus::dbus_error_init(&error);
    DBus::MessagePtr call(
        DBus::dbus_message_new_method_call(kBluez, kObjectManagerPath, kObjectManagerInterface, "GetManagedObjects"));
    if (!call) return false;
    const DBus::MessagePtr reply(
        DBus::dbus_connection_send_with_reply_and_block(connection_, call.get(), kManagedObjectsTimeoutMs, &error));
    call.reset();
    if (!reply || DBus::dbus_error_is_set(&error)) {
        LogRecord(4, logHandle_) << "Failed to obtain managed objects: " << error.message;
        return false;
    }

    DBusMessageIter objects;
    if (DBus::dbus_message_iter_init(reply.get(), &objects)) {
        DBus::Util::iterDict(&objects, [this](DBusMessageIter* object) {
            dispatchThread_.check();
            addObject(object);
            return true;
        });
    }
    return true;
}

void Service::addObject(DBusMessageIter* object) {
    const Ref<String> path = objectPathAt(object);
    if (path && DBus::dbus_message_iter_next(object)) addInterfaces(path, object);
}

void Service::addInterfaces(const Ref<String>& path, DBusMessageIter* interfaces) {
    DBus::Util::iterDict(interfaces, [this, path](DBusMessageIter* interface) {
        dispatchThread_.check();
        return addInterface(path, interface);
    });
}

bool Service::addInterface(const Ref<String>& path, DBusMessageIter* interface) {
    const Ref<String> name = stringAt(interface);
    if (!name) return true;
    if (name->equals(kAdapterInterface)) {
        adapters_->addAdapter(path, Ref<Service>(this));
        return false;
    }
    if (!name->equals(kDeviceInterface) || !DBus::dbus_message_iter_next(interface)) return true;
    const Ref<String> address = findAddress(interface);
    if (!address) return true;
    devices_->addDevice(path, address, Ref<Service>(this));
    return false;
}

bool Service::installObjectFilter() {
    DBusError error;
    DBus::dbus_error_init(&error);
    DBus::dbus_bus_add_match(connection_, kObjectManagerRule, &error);
    if (DBus::dbus_error_is_set(&error)) {
        LogRecord(4, logHandle_) << "Could not add match: " << error.message;
        return false;
    }
    if (!DBus::dbus_connection_add_filter(connection_, &Service::onObjectManagerSignal, this, nullptr)) return false;
    LogRecord(1, logHandle_) << "Adapters/devices filter successfully installed";
    return true;
}

DBusHandlerResult Service::onObjectManagerSignal(DBus::DBusConnection*, DBusMessage* message, void* service) {
    const Ref<Service> self(static_cast<Service*>(service));
    self->dispatchThread_.check();
    return self->handleObjectManagerSignal(message);
}

DBusHandlerResult Service::handleObjectManagerSignal(DBusMessage* message) {
    if (DBus::dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL ||
        text(DBus::dbus_message_get_path(message)) != kObjectManagerPath ||
        text(DBus::dbus_message_get_interface(message)) != kObjectManagerInterface) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }

    DBusMessageIter argument;
    DBus::dbus_message_iter_init(message, &argument);
    const Ref<String> path = objectPathAt(&argument);
    if (!path) return DBUS_HANDLER_RESULT_HANDLED;
    const std::string_view member = text(DBus::dbus_message_get_member(message));
    const bool added = member == "InterfacesAdded";
    const bool removed = member == "InterfacesRemoved";
    if ((added || removed) && DBus::dbus_message_iter_next(&argument)) {
        if (added) addInterfaces(path, &argument);
        if (removed) removeInterfaces(path, &argument);
    }
    return DBUS_HANDLER_RESULT_HANDLED;
}

void Service::removeInterfaces(const Ref<String>& path, DBusMessageIter* interfaces) {
    if (DBus::dbus_message_iter_get_arg_type(interfaces) != DBUS_TYPE_ARRAY) return;
    DBusMessageIter element;
    DBus::dbus_message_iter_recurse(interfaces, &element);
    for (; DBus::dbus_message_iter_get_arg_type(&element) != DBUS_TYPE_INVALID;
         DBus::dbus_message_iter_next(&element)) {
        const Ref<String> name = stringAt(&element);
        if (!name) continue;
        if (name->equals(kAdapterInterface)) {
            adapters_->removeAdapter(path);
            return;
        }
        if (name->equals(kDeviceInterface)) {
            devices_->removeDevice(path);
            return;
        }
    }
}

}  // namespace Services::Bluetooth::Linux
