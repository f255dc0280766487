#include "adapters/Adapters.h"

#include <string>

#include "adapters/Adapter.h"
#include "platform/host/Crc.h"
#include "platform/host/SysLog.h"
#include "service/Service.h"

namespace Services::Bluetooth::Linux {

namespace {

constexpr std::uint64_t kNodeType = 0x20000;
constexpr std::uint64_t kNodeMode = 2;

/// Stable within the process; clients never see it.
std::uint64_t nodeId(const Ref<String>& path) {
    namespace CRC = Libraries::Filter::CRC;
    const Ref<CRC::CRC64> checksum = CRC::CRC64::create(CRC::Type::Default, true);
    checksum->write(path->view());
    return checksum->value();
}

}  // namespace

std::uint64_t Adapters::logHandle_ = 0;
const InitCode::Register Adapters::registerLog_([] {
    logHandle_ = SysLogFilter::reg(String::create("ServiceBluetoothLinux"));
});

Adapters::Adapters() : lock_(Mon::create()) {}

Adapters::~Adapters() = default;

bool Adapters::start() {
    namespace Nodes = Services::Nodes;
    const Ref<Nodes::Resolvers::Generic> generic = Nodes::Resolvers::Generic::create(
        Ref<Interfaces::Generic>(this), Ref<CallerID>(this), Nodes::Resolver::create());
    service_ = Libraries::Service::Single::create(generic, generic, String::create("LinuxBTAdapters"));
    return service_ != nullptr;
}

bool Adapters::addAdapter(Ref<String> path, Ref<Service> service) {
    dispatchThread_.check();
    if (!lock_->enter()) return false;
    const bool added = add(path, service);
    lock_->leave();
    return added;
}

bool Adapters::add(const Ref<String>& path, const Ref<Service>& service) {
    const std::uint64_t id = nodeId(path);
    if (entries_.contains(id)) return false;
    Ref<Adapter> adapter = Adapter::create(service, path);
    if (!adapter) return false;
    Ref<DeviceServer> server = publish(id, *adapter);
    entries_.emplace(id, Entry{std::move(adapter), std::move(server)});
    LogRecord(1, logHandle_) << "Adapter added: " << path;
    return true;
}

Ref<DeviceServer> Adapters::publish(std::uint64_t id, const Adapter& adapter) const {
    const Ref<DeviceNode> node = DeviceNode::create();
    node->configure(kNodeType, service_ ? service_->handle() : 0, 0, 0, kNodeMode, id);
    Ref<DeviceServer> server = DeviceServer::create();
    if (Services::Nodes::isComponent(adapter.address()->view())) {
        const std::string address(adapter.address()->view());
        server->enter(String::create("bluetooth/adapters/" + address + "/" + "adapter"), node);
    } else {
        LogRecord(3, logHandle_) << "Could not publish adapter " << adapter.path()
                                 << ", no node can have its address: " << adapter.address();
    }
    return server;
}

bool Adapters::removeAdapter(Ref<String> path) {
    dispatchThread_.check();
    if (!lock_->enter()) return false;
    const bool removed = remove(path);
    lock_->leave();
    return removed;
}

bool Adapters::remove(const Ref<String>& path) {
    const auto found = entries_.find(nodeId(path));
    if (found == entries_.end()) return false;
    Entry entry = std::move(found->second);
    entries_.erase(found);
    entry.server.reset();
    LogRecord(1, logHandle_) << "Adapter removed: " << entry.adapter->path();
    return true;
}

bool Adapters::setDiscoveringAll(bool start) {
    if (!lock_->enter()) return false;
    bool succeeded = false;
    for (const auto& [id, entry] : entries_) {
        if (entry.adapter->setDiscovering(start)) succeeded = true;
    }
    lock_->leave();
    return succeeded;
}

Ref<Adapter> Adapters::findAdapter(std::uint64_t id) {
    if (!lock_->enter()) return nullptr;
    const auto found = entries_.find(id);
    Ref<Adapter> adapter = found == entries_.end() ? nullptr : found->second.adapter;
    lock_->leave();
    return adapter;
}

}  // namespace Services::Bluetooth::Linux
