#include "devices/Device.h"

#include "devices/Bluez.h"
#include "devices/Log.h"
#include "platform/dbus/Util.h"
#include "platform/host/InitCode.h"
#include "platform/host/SysLog.h"
#include "service/Service.h"

namespace Services::Bluetooth::Linux {

std::uint64_t Log::device = 0;

namespace {
const InitCode::Register registerLog([] { Log::device = SysLogFilter::reg(String::create("ServiceBluetoothLinux")); });
}  // namespace

Device::Device(const Ref<Service>& service, Ref<String> path, Ref<String> address)
    : service_(service),
      server_(DeviceServer::create()),
      path_(std::move(path)),
      address_(std::move(address)),
      profilesLock_(Mon::create()),
      pairingState_(static_cast<std::uint64_t>(PairingState::Unpaired)),
      attempt_(new PairingAttempt),
      waiters_(TVector<Ref<Sem>>::create()),
      waitersLock_(Mon::create()) {
    const ServiceHold hold = holdService();
    DBusBasicValue value;
    if (readProperty(hold, "Alias", DBUS_TYPE_STRING, &value)) {
        name_.store(String::create(std::string_view(value.str)));
    } else {
        LogRecord(3, Log::device) << "Could not obtain alias of device " << path_;
        name_.store(String::create("GenericDevice"));
    }
    if (readProperty(hold, "Paired", DBUS_TYPE_BOOLEAN, &value)) {
        if (value.bool_val) pairingState_ = static_cast<std::uint64_t>(PairingState::Paired);
    } else {
        LogRecord(3, Log::device) << "Could not determine pairing status, assume unpaired for " << path_;
    }
    if (readProperty(hold, "Class", DBUS_TYPE_UINT32, &value)) {
        classOfDevice_ = value.u32;
    } else {
        LogRecord(3, Log::device) << "Could not read BT classes for device " << path_;
    }
}

Device::~Device() {
    // First of all: the filter works on this object without holding a reference.
    removePropertyWatch();
}

Device::ServiceHold Device::holdService() const {
    const Ref<Service> service = service_.lock();
    if (!service) return {};
    return {service, service->connection(), &service->agent()};
}

bool Device::readProperty(const ServiceHold& service, const char* property, int type, DBusBasicValue* value) const {
    if (!service) return false;
    int actual = DBUS_TYPE_INVALID;
    return DBus::Util::getPropertyBasic(String::create(Bluez::kService), path_, service.connection, Bluez::kNoLimit,
                                        String::create(Bluez::kDevice), String::create(property), value, &actual) &&
           actual == type;
}

}  // namespace Services::Bluetooth::Linux
