#pragma once

#include <map>

#include "platform/host/InitCode.h"
#include "platform/host/Mon.h"
#include "platform/host/ThreadCheck.h"
#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/Interfaces.h"
#include "platform/nodes/Service.h"

namespace Services::Bluetooth::Linux {

class Adapter;
class Service;

/// The local adapters that BlueZ currently publishes, and the server of their nodes
/// (bluetooth/adapters/ADDRESS/adapter).
///
/// The dispatch thread adds and removes, request threads look up and execute. One monitor guards the map; it is held
/// over the bus calls of addAdapter and setDiscoveringAll, so requests for any adapter, and the dispatch thread, wait
/// for these. Such a wait ends when its own client leaves or the service ends: then an adapter counts as not found.
class Adapters final : public RefCount, public Interfaces::Generic, public CallerID {
public:
    Adapters();

    /// Starts the node service "LinuxBTAdapters"; false when it cannot be started. A started registry is in a cycle
    /// of references with its node service, which ends when that is stopped.
    bool start();
    /// The running node service; null until started.
    const Ref<Libraries::Service::Base>& service() const noexcept { return service_; }

    /// Reads the adapter's properties from the bus and publishes it. True when it was added, false when the path is
    /// there already or the address cannot be read. Dispatch thread.
    bool addAdapter(Ref<String> path, Ref<Service> service);
    /// Withdraws the adapter. False when there is none with this path. Dispatch thread.
    bool removeAdapter(Ref<String> path);
    /// Starts (stops) discovery on every adapter, one after the other; true when one succeeded. Any thread.
    bool setDiscoveringAll(bool start);
    /// Null when there is none with this node id. Any thread.
    Ref<Adapter> findAdapter(std::uint64_t id);

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
    /// A published adapter; releasing the server withdraws the node.
    struct Entry {
        Ref<Adapter> adapter;
        Ref<DeviceServer> server;
    };

    ~Adapters() override;

    bool add(const Ref<String>& path, const Ref<Service>& service) REQUIRES(*lock_);
    bool remove(const Ref<String>& path) REQUIRES(*lock_);
    Ref<DeviceServer> publish(std::uint64_t id, const Adapter& adapter) const;

    static NodeValue executeAction(Adapter& adapter, const NodeValue& action);
    /// The text of the last option that is wrong; null when all are right.
    static Ref<String> checkOptions(const NodeValue& action);

    static std::uint64_t logHandle_;
    static const InitCode::Register registerLog_;

    ThreadCheck dispatchThread_;
    const Ref<Mon> lock_;
    std::map<std::uint64_t, Entry> entries_ GUARDED_BY(*lock_);  // by node id, the checksum of the object path
    Ref<Libraries::Service::Base> service_;
    CallerIdField callerId_;
};

}  // namespace Services::Bluetooth::Linux
