#include "adapters/Adapter.h"

#include <utility>

#include "platform/dbus/Util.h"
#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"
#include "platform/host/Thd.h"
#include "service/Service.h"

namespace Services::Bluetooth::Linux {

namespace {

constexpr const char* kBluez = "org.bluez";
constexpr const char* kAdapterInterface = "org.bluez.Adapter1";
constexpr const char* kNotReady = "org.bluez.Error.NotReady";
constexpr std::uint64_t kPropertyTimeoutMs = 0xFFFFFFFFu;  // as long as the bus library allows: 25 s
constexpr int kDefaultTimeout = -1;
constexpr unsigned kMaxAttempts = 3;
constexpr std::uint32_t kRetryPauseMs = 2500;

/// False also for a property of another type than the expected one.
bool readProperty(DBus::DBusConnection* connection, const Ref<String>& path, std::string_view name, int expectedType,
                  DBusBasicValue* value) {
    int type = DBUS_TYPE_INVALID;
    return DBus::Util::getPropertyBasic(String::create(kBluez), path, connection, kPropertyTimeoutMs,
                                        String::create(kAdapterInterface), String::create(name), value, &type) &&
           type == expectedType;
}

/// Null when it cannot be read.
Ref<String> readText(DBus::DBusConnection* connection, const Ref<String>& path, std::string_view name) {
    DBusBasicValue value{};
    if (!readProperty(connection, path, name, DBUS_TYPE_STRING, &value)) return nullptr;
    return String::create(value.str);
}

}  // namespace

std::uint64_t Adapter::logHandle_ = 0;
const InitCode::Register Adapter::registerLog_([] {
    logHandle_ = SysLogFilter::reg(String::create("ServiceBluetoothLinux"));
});

Ref<Adapter> Adapter::create(Ref<Service> service, Ref<String> path) {
    Ref<String> address = readText(service->connection(), path, "Address");
    if (!address) {
        LogRecord(4, logHandle_) << "Could not obtain address for adapter " << path;
        return nullptr;
    }
    return Ref<Adapter>(new Adapter(service, std::move(path), std::move(address)));
}

Adapter::Adapter(const Ref<Service>& service, Ref<String> path, Ref<String> address)
    : service_(service), path_(std::move(path)), address_(std::move(address)) {
    discovering_.store(readDiscovering(service->connection()));
    name_ = readName(service->connection());
}

Adapter::~Adapter() = default;

bool Adapter::readDiscovering(DBus::DBusConnection* connection) const {
    DBusBasicValue value{};
    if (readProperty(connection, path_, "Discovering", DBUS_TYPE_BOOLEAN, &value)) return value.bool_val != 0;
    LogRecord(3, logHandle_) << "Could not read out scanning status, assuming no scanning for " << path_;
    return false;
}

Ref<String> Adapter::readName(DBus::DBusConnection* connection) const {
    Ref<String> name = readText(connection, path_, "Name");
    if (!name) {
        LogRecord(3, logHandle_) << "Could not get name for adapter " << path_;
        return String::create("GenericAdapter");
    }
    const Ref<String> product = productName(path_);
    return product ? product : name;
}

bool Adapter::setDiscovering(bool start) {
    if (discovering_.load() == start) return true;
    const Ref<Service> service = service_.lock();
    if (!service) return false;

    for (unsigned attempt = 1;; ++attempt) {
        DBusError error;
        DBus::dbus_error_init(&error);
        LogRecord(1, logHandle_) << path_ << ": start/stop discovery, attempt #" << StrConv::str(attempt);
        if (callDiscovery(service->connection(), start, &error)) {
            discoveryChanged(start);
            return true;
        }

        const bool notReady = error.name && std::string_view(error.name) == kNotReady;
        if (notReady && attempt == kMaxAttempts) {
            LogRecord(4, logHandle_) << path_ << ": start/stop discovery failed (too many retries)";
            return false;
        }
        // A pause that is interrupted ends the attempts with the error that made it necessary.
        if (!notReady || !Thd::sleep(kRetryPauseMs)) {
            LogRecord(4, logHandle_) << path_ << ": failed to start/stop discovery: " << error.name << ", "
                                     << error.message;
            return false;
        }
    }
}

DBus::MessagePtr Adapter::callDiscovery(DBus::DBusConnection* connection, bool start, DBusError* error) {
    const DBus::MessagePtr call(DBus::dbus_message_new_method_call(kBluez, path_->cstr(), kAdapterInterface,
                                                                   start ? "StartDiscovery" : "StopDiscovery"));
    if (!call) return nullptr;
    // A client that hangs up is let go at once, but BlueZ carries the call out all the same: the state follows when the
    // answer comes, or the service would refuse the opposite request as already done.
    auto late = [self = Ref<Adapter>(this), start](DBusMessage* reply) {
        if (DBus::dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN) self->discoveryChanged(start);
    };
    return DBus::MessagePtr(DBus::dbus_connection_send_with_reply_and_block(connection, call.get(), kDefaultTimeout,
                                                                            error, std::move(late)));
}

void Adapter::discoveryChanged(bool started) {
    // Inverted, not set: of two overlapping calls that BlueZ both carried out, the later one inverts it again.
    bool before = discovering_.load();
    while (!discovering_.compare_exchange_weak(before, !before)) {
    }
    LogRecord(1, logHandle_) << (started ? "Scan started for adapter " : "Scan stopped for adapter ") << path_;
}

}  // namespace Services::Bluetooth::Linux
