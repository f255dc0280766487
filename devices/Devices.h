#pragma once

#include <map>

#include "platform/host/Mon.h"
#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/Interfaces.h"
#include "platform/nodes/Service.h"

namespace Services::Bluetooth::Linux {

class Device;
class Service;

/// The remote devices that BlueZ currently publishes, and the server of their nodes.
class Devices final : public RefCount, public Interfaces::Generic, public CallerID {
public:
    Devices();

    /// Starts the node service "LinuxBTDevices"; false when it cannot be started.
    bool start();
    /// The running node service; null until started.
    const Ref<Libraries::Service::Base>& service() const noexcept { return service_; }

    /// True when the device was published. Main thread.
    bool addDevice(Ref<String> path, Ref<String> address, Ref<Service> service);
    /// True when a device was removed. Main thread.
    bool removeDevice(Ref<String> path);
    /// Null when there is none with this node id. Any thread.
    Ref<Device> findDevice(std::uint64_t id);

    // Interfaces::Generic
    std::uint64_t attributeCount() override;
    Ref<String> attributeName(std::uint64_t index) override;
    TArray<NodeValue> getAttribute(Ref<String> name) override;
    TArray<NodeValue> setAttribute(TArray<NodeValue> values) override;
    std::uint64_t actionCount() override;
    Ref<String> actionName(std::uint64_t index) override;
    TArray<NodeValue> execute(TArray<NodeValue> values) override;

    // CallerID
    void setCallerId(std::uint64_t id) override { callerId_.set(id); }
    std::uint64_t callerId() override { return callerId_.get(); }

private:
    ~Devices() override;

    Ref<Mon> lock_;
    std::map<std::uint64_t, Ref<Device>> entries_ GUARDED_BY(*lock_);
    Ref<Libraries::Service::Base> service_;
    CallerIdField callerId_;
};

}  // namespace Services::Bluetooth::Linux
