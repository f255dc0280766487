#pragma once

#include <atomic>

#include "agent/AuthenticationAgent.h"
#include "platform/dbus/DBus.h"
#include "platform/host/InitCode.h"
#include "platform/host/Interrupt.h"
#include "platform/host/ThreadCheck.h"
#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/Interfaces.h"
#include "platform/nodes/Service.h"

namespace Services::Bluetooth::Linux {

class Adapters;
class Devices;

/// The one object that owns the bus connection, the registries, the agent and the two control nodes.
///
/// Created, initialised, run until a STOP or the loss of the bus, released: all four on the main thread, which is the
/// dispatch thread. Bus filters, the agent's messages and the completions of asynchronous calls run there and nowhere
/// else. Requests run on the node framework's threads and make blocking bus calls on the same connection; none of them
/// is left when run() or a failed initialize() returns, so the last reference is the main thread's.
class Service final : public RefCount, public Interfaces::Generic, public CallerID {
public:
    /// Ids of the nodes bluetooth/service and bluetooth/master.
    static constexpr std::uint64_t SERVICE_NODE = 1;
    static constexpr std::uint64_t MASTER_NODE = 2;

    /// Null when there is no bus connection or the node tree cannot be used; the reason is in the log.
    static Ref<Service> create();
    /// Finds the objects there are, watches for more, registers the agent, publishes the control nodes. False when one
    /// of them failed; the reason is in the log, all nodes are withdrawn, and nothing but a release may follow.
    bool initialize();
    /// Dispatches bus messages until a stop is requested or the bus is lost, then withdraws all nodes and waits for the
    /// requests in progress.
    void run();
    /// Makes run() end at once, whatever the dispatch thread waits for. Any thread, also before run().
    void requestStop();

    /// Valid as long as the service is; closed by its destruction.
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
    static constexpr std::string_view kServerName = "LinuxBTService";

    Service(DBus::DBusConnection* connection, Ref<Adapters> adapters, Ref<Devices> devices);
    ~Service() override;

    bool setUp() REQUIRES(dispatchThread_);
    void dispatchUntilStopped() REQUIRES(dispatchThread_);
    void stopNodeServices() REQUIRES(dispatchThread_);
    /// What STOP does: requests the stop, then says so in the log. Any thread.
    void terminate();

    // Discovery.cpp: the objects that BlueZ publishes. A walk's step returns whether the walk goes on.
    bool discoverExisting() REQUIRES(dispatchThread_);
    bool installObjectFilter() REQUIRES(dispatchThread_);
    static DBusHandlerResult onObjectManagerSignal(DBus::DBusConnection* connection, DBusMessage* message,
                                                   void* service);
    DBusHandlerResult handleObjectManagerSignal(DBusMessage* message) REQUIRES(dispatchThread_);
    void addObject(DBusMessageIter* object) REQUIRES(dispatchThread_);
    void addInterfaces(const Ref<String>& path, DBusMessageIter* interfaces) REQUIRES(dispatchThread_);
    bool addInterface(const Ref<String>& path, DBusMessageIter* interface) REQUIRES(dispatchThread_);
    void removeInterfaces(const Ref<String>& path, DBusMessageIter* interfaces) REQUIRES(dispatchThread_);

    // ControlNodes.cpp: bluetooth/service and bluetooth/master.
    bool createNodes() REQUIRES(dispatchThread_);
    NodeValue executeOnService(const NodeValue& action);
    NodeValue executeOnMaster(const NodeValue& action);

    static std::uint64_t logHandle_;
    static const InitCode::Register registerLog_;

    ThreadCheck dispatchThread_;
    AuthenticationAgent agent_;  // released last: its object is exported as long as the connection lives
    DBus::DBusConnection* connection_;
    Ref<Adapters> adapters_;
    Ref<Devices> devices_;
    std::atomic<bool> stopRequested_{false};
    Interrupt stopInterrupt_;  // bound to the dispatch thread in run(), raised by requestStop()
    Ref<Libraries::Service::Base> nodeService_;
    Ref<DeviceServer> serviceServer_;
    Ref<DeviceServer> masterServer_;
    CallerIdField callerId_;
};

}  // namespace Services::Bluetooth::Linux
