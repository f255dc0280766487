#ifndef SIMULATOR_ADAPTER_H
#define SIMULATOR_ADAPTER_H

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "simulator/Device.h"
#include "simulator/World.h"

namespace Simulator {

/// A local controller: the object with org.bluez.Adapter1, the devices that it knows and those in range of it.
class Adapter {
public:
    Adapter(World& world, const AdapterPlan& plan);
    /// Its devices go first, as in bluetoothd.
    ~Adapter();
    Adapter(const Adapter&) = delete;
    Adapter& operator=(const Adapter&) = delete;

    const std::string& path() const { return path_; }

    static const MethodTable<Adapter>& methods();
    /// The type of a property that clients may write, 0 when they may not.
    static char writableType(const std::string& property);
    /// Properties.Set of such a property with a value of that type.
    void write(const std::string& property, const Value& value);
    /// The client's discovery and its pairings end.
    void clientGone(const std::string& client);

    /// Off ends discoveries, pairings and connections, and makes calls fail with NotReady.
    void setPowered(bool isOn);

    /// Puts a device on the air: it appears at once, or when an inquiry finds it. False when there is no such model or
    /// the device is there already.
    bool put(const DevicePlan& plan);
    /// Takes the device of this path off the air. False when there was none.
    bool take(const std::string& path);
    Device* device(const std::string& path);
    std::string pathOf(const std::string& address) const;
    /// Paths of the devices on the bus.
    std::vector<std::string> devices() const;

private:
    struct InRange {
        DevicePlan plan;
        Timer found;
    };

    void startDiscovery(const Call& call);
    void stopDiscovery(const Call& call);
    void setDiscoveryFilter(const Call& call);
    void getDiscoveryFilters(const Call& call);
    void removeDevice(const Call& call);
    void endDiscoveryOf(const std::string& client);
    /// While a device pairs discovery is suspended: who asks for one is answered when the pairing has ended.
    bool isSuspended() const;
    void resumeDiscovery();
    void inquire();
    void stopInquiry();
    void seeDevices();
    std::vector<Device*> all() const;
    void findLater(InRange& inRange);
    /// The plan names a model that exists.
    void appear(const DevicePlan& plan);

    bool isPowered() const;
    void set(const char* property, Value value) { world_.objects.set(path_, kAdapter1, property, std::move(value)); }

    World& world_;
    const std::string path_;
    std::map<std::string, std::unique_ptr<Device>> devices_;  // by path
    std::map<std::string, InRange> inRange_;                  // by address
    std::set<std::string> discoverers_;                       // the clients whose discovery is on
    std::vector<Call> suspended_;                             // StartDiscovery of some of them
    Timer seeing_;
    Timer powering_;
};

}  // namespace Simulator

#endif
