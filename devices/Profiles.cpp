#include "devices/Bluez.h"
#include "devices/Device.h"
#include "devices/Log.h"
#include "platform/dbus/Util.h"
#include "platform/host/SysLog.h"

namespace Services::Bluetooth::Linux {

namespace {

constexpr int kConnectTimeoutMs = 1000;

void profileConnected(Profile& profile, const Ref<String>& path) {
    profile.setActive();
    (LogRecord(1, Log::device) << "Activated profile ").number(profile.number()) << " for device " << path;
}

}  // namespace

void Device::retrieveProfiles() {
    const ServiceHold service = holdService();
    if (!service) return;
    LogRecord(1, Log::device) << "Retrieving profiles for " << path_;
    DBus::Util::getProperty(String::create(Bluez::kService), path_, service.connection, Bluez::kNoLimit,
                            String::create(Bluez::kDevice), String::create("UUIDs"),
                            [this](DBusMessageIter* value) { appendProfiles(value); });

    // Here and for appending: a profile that is being connected is waited for, but not once the service ends.
    if (!profilesLock_->enter()) return;
    if (const std::size_t count = profiles_.count(); count > 0) {
        (LogRecord(1, Log::device) << "Successfully retrieved ").number(count) << " profiles for " << path_;
    } else {
        LogRecord(3, Log::device) << "Did not retreive any profiles for " << path_;
    }
    profilesLock_->leave();
}

void Device::appendProfiles(DBusMessageIter* value) {
    if (DBus::dbus_message_iter_get_arg_type(value) != DBUS_TYPE_VARIANT) return;
    DBusMessageIter uuids;
    DBus::dbus_message_iter_recurse(value, &uuids);

    if (!profilesLock_->enter()) return;
    std::vector<Ref<Profile>> found;
    DBus::Util::iterArray(&uuids, [&found](DBusMessageIter* element) {
        if (DBus::dbus_message_iter_get_arg_type(element) != DBUS_TYPE_STRING) return true;
        if (const Ref<String> uuid = DBus::Util::getString(element)) {
            if (Ref<Profile> profile = Profile::parse(uuid)) found.push_back(std::move(profile));
        }
        return true;
    });
    profiles_.append(found);
    profilesLock_->leave();
}

std::size_t Device::profileCount() {
    if (!profilesLock_->enter()) return 0;
    const std::size_t count = profiles_.count();
    profilesLock_->leave();
    return count;
}

Ref<Profile> Device::profileAt(std::size_t index) {
    if (!profilesLock_->enter()) return nullptr;
    Ref<Profile> profile = profiles_.at(index);
    profilesLock_->leave();
    return profile;
}

std::int32_t Device::activateProfile(std::uint32_t number) {
    if (!profilesLock_->enter()) return -1;
    const std::int32_t result = connectProfile(number);
    profilesLock_->leave();
    return result;
}

std::int32_t Device::connectProfile(std::uint32_t number) {
    const Ref<Profile> profile = profiles_.find(number);
    if (!profile || profile->active()) return -1;
    (LogRecord(1, Log::device) << "Activate profile ").number(number) << " for device " << path_;
    const ServiceHold service = holdService();
    if (!service) return -1;

    const DBus::MessagePtr call(
        DBus::dbus_message_new_method_call(Bluez::kService, path_->cstr(), Bluez::kDevice, "ConnectProfile"));
    if (!call) return -1;
    DBusMessageIter arguments;
    DBus::dbus_message_iter_init_append(call.get(), &arguments);
    const char* const uuid = profile->uuid()->cstr();
    if (!DBus::dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &uuid)) return -1;

    DBusError error;
    DBus::dbus_error_init(&error);
    // A client that hangs up frees its thread and the list at once; the profile that BlueZ connects all the same is
    // marked when it says so.
    const DBus::MessagePtr reply(DBus::dbus_connection_send_with_reply_and_block(
        service.connection, call.get(), kConnectTimeoutMs, &error, [profile, path = path_](DBusMessage* late) {
            if (DBus::dbus_message_get_type(late) != DBUS_MESSAGE_TYPE_ERROR) profileConnected(*profile, path);
        }));
    if (!reply) {
        (LogRecord(4, Log::device) << "Could not activate profile ").number(number)
            << " for device " << path_ << ": " << error.message;
        return -1;
    }
    profileConnected(*profile, path_);
    return 0;
}

}  // namespace Services::Bluetooth::Linux
