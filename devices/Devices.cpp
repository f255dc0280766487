#include "devices/Devices.h"

#include <string>

#include "devices/Device.h"
#include "devices/Log.h"
#include "platform/host/Crc.h"
#include "platform/host/InitCode.h"
#include "platform/host/SysLog.h"
#include "service/Service.h"

namespace Services::Bluetooth::Linux {

std::uint64_t Log::registry = 0;

namespace {

const InitCode::Register registerLog([] {
    Log::registry = SysLogFilter::reg(String::create("ServiceBluetoothLinux"));
});

// What the platform asks of a node that is served by its node server.
constexpr std::uint64_t kNodeType = 131072;
constexpr std::uint64_t kNodeMode = 2;

std::uint64_t nodeId(const Ref<String>& path) {
    namespace CRC = Libraries::Filter::CRC;
    const Ref<CRC::CRC32> checksum = CRC::CRC32::create(CRC::Type::Default, true);
    checksum->write(path->view());
    checksum->finish();
    return checksum->value() & 0xFFFFFFFFu;
}

/// Publishes the device's node, until the device is removed or released.
void publish(const Device& device, std::uint64_t serviceHandle, std::uint64_t id) {
    // BlueZ's word, but it becomes a folder.
    if (!Services::Nodes::isComponent(device.getAddress()->view())) {
        LogRecord(3, Log::registry) << "Could not publish device " << device.getPath()
                                    << ": its address cannot be a node's name";
        return;
    }
    const std::string name = std::string("bluetooth/devices/").append(device.getAddress()->view()) + "/device";
    device.server().enter(String::create(std::string_view(name)),
                          DeviceNode::create(kNodeType, serviceHandle, 0, 0, kNodeMode, id));
}

}  // namespace

Devices::Devices() : lock_(Mon::create()) {}

Devices::~Devices() = default;

bool Devices::start() {
    using Services::Nodes::Resolvers::Generic;
    const Ref<Generic> resolver =
        Generic::create(Ref<Interfaces::Generic>(this), Ref<CallerID>(this), Services::Nodes::Resolver::create());
    service_ = Libraries::Service::Single::create(resolver, resolver, String::create("LinuxBTDevices"));
    return service_ != nullptr;
}

bool Devices::addDevice(Ref<String> path, Ref<String> address, Ref<Service> service) {
    const MonGuard guard(lock_);
    for (const auto& entry : entries_) {
        if (entry.second->getAddress()->equals(address)) return false;
    }
    const std::uint64_t id = nodeId(path);
    const Ref<Device> device(new Device(service, path, address));
    device->installPropertyWatch(service->connection());
    publish(*device, service_ ? service_->handle() : 0, id);
    // Where another path has the same checksum, its device stays and this one goes at the end, with its node.
    entries_.emplace(id, device);
    LogRecord(1, Log::registry) << "Device added: " << path;
    return true;
}

bool Devices::removeDevice(Ref<String> path) {
    const std::uint64_t id = nodeId(path);
    const MonGuard guard(lock_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) return false;
    const Ref<Device> device = std::move(found->second);
    entries_.erase(found);
    LogRecord(1, Log::registry) << "Device removed: " << path;
    // A request in progress may keep the device for long, a pairing that BlueZ does not answer for one; its name in the
    // tree is free for a device that BlueZ announces anew.
    device->server().withdraw();
    device->removed();
    return true;
}

Ref<Device> Devices::findDevice(std::uint64_t id) {
    // Held for long while a device is being added, which waits for BlueZ.
    if (!lock_->enter()) return nullptr;
    const auto found = entries_.find(id);
    Ref<Device> device = found == entries_.end() ? nullptr : found->second;
    lock_->leave();
    return device;
}

}  // namespace Services::Bluetooth::Linux
