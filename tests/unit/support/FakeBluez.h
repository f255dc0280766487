#pragma once

#include <mutex>
#include <string>

#include "tests/unit/support/FakePeer.h"

namespace UnitTest {

/// BlueZ as the service needs it to start: answers GetManagedObjects with the objects given and RegisterAgent with
/// success, refuses UnregisterAgent without an argument. All else is scripted through the peer.
class FakeBluez {
public:
    static constexpr const char* kAdapter = "org.bluez.Adapter1";
    static constexpr const char* kDevice = "org.bluez.Device1";
    static constexpr const char* kManager = "org.freedesktop.DBus.ObjectManager";
    static constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
    static constexpr const char* kAgentManager = "org.bluez.AgentManager1";

    FakeBluez();

    /// An adapter's properties, and its object for the next GetManagedObjects.
    void addAdapter(const std::string& path, const std::string& address, const std::string& name = "controller",
                    bool discovering = false);
    /// An object for the next GetManagedObjects, as it is.
    void addObject(const std::string& path, const BusInterfaces& interfaces);
    /// Emits InterfacesAdded (InterfacesRemoved) from "/".
    void announce(const std::string& path, const BusInterfaces& interfaces);
    void withdraw(const std::string& path, const std::vector<std::string>& interfaces);

    FakePeer& peer() { return peer_; }
    FakePeer* operator->() { return &peer_; }

private:
    std::mutex lock_;
    BusObjects objects_;
    FakePeer peer_;
};

}  // namespace UnitTest
