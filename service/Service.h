#pragma once

#include <atomic>

#include "agent/AuthenticationAgent.h"
#include "platform/dbus/DBus.h"
#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/Interfaces.h"
#include "platform/nodes/Service.h"

namespace Services::Bluetooth::Linux {

class Adapters;
class Devices;

/// The one object that owns the bus connection, the registries, the agent and the two control nodes.
///
/// Created, initialised, run until a STOP or the loss of the bus, released: all four on the main thread, which is the
/// dispatch thread. The control nodes' operations run on request threads.
class Service final : public RefCount, public Interfaces::Generic, public CallerID {
public:
    static constexpr std::uint64_t SERVICE_NODE = 1;
    static constexpr std::uint64_t MASTER_NODE = 2;

    /// Null when there is no bus connection or the node tree cannot be used; the reason is in the log.
    static Ref<Service> create();
    bool initialize();
    /// Returns when the service has ended.
    void run();
    /// Any thread.
    void requestStop();

    DBus::DBusConnection* connection() const noexcept { return connection_; }
    Adapters& adapters() const noexcept { return *adapters_; }
    Devices& devices() const noexcept { return *devices_; }
    AuthenticationAgent& agent() noexcept { return agent_; }

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
    Service(DBus::DBusConnection* connection, Ref<Adapters> adapters, Ref<Devices> devices);
    ~Service() override;

    bool discoverExisting();
    bool installObjectFilter();
    bool createNodes();
    static DBusHandlerResult onObjectManagerSignal(DBus::DBusConnection* connection, DBusMessage* message,
                                                   void* service);

    AuthenticationAgent agent_;
    DBus::DBusConnection* connection_;
    Ref<Adapters> adapters_;
    Ref<Devices> devices_;
    std::atomic<bool> stopRequested_{false};
    Ref<Libraries::Service::Base> nodeService_;
    Ref<DeviceServer> serviceServer_;
    Ref<DeviceServer> masterServer_;
    CallerIdField callerId_;
};

}  // namespace Services::Bluetooth::Linux
