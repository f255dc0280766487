#pragma once

#include <atomic>

#include "platform/dbus/DBus.h"
#include "platform/host/InitCode.h"
#include "platform/host/String.h"

namespace Services::Bluetooth::Linux {

namespace DBus = Libraries::Platform::Posix::DBus;

class Service;

/// One local Bluetooth controller that BlueZ publishes: its identity, and the one thing it can be told, to look for
/// devices or to stop that.
///
/// Path, address and name never change. `discovering` is what the service believes of BlueZ: read once at construction,
/// from then on inverted by each discovery call that BlueZ carried out, also by one whose caller had left before the
/// answer came. What others do to the controller is not followed. Any thread; calls may overlap and take no lock.
class Adapter final : public RefCount {
public:
    /// Reads the adapter's properties from BlueZ (up to three blocking reads). Null, with a log line, when the address
    /// cannot be read; any other unreadable property has a default.
    static Ref<Adapter> create(Ref<Service> service, Ref<String> path);

    /// Starts or stops discovery; true also when the adapter is in the requested state already (then nothing is sent).
    /// A controller that is not ready is asked three times, 2500 ms apart. False, with a log line, on failure, and when
    /// the waiting client left or the service ends; false in silence when the service is gone.
    bool setDiscovering(bool start);

    const Ref<String>& path() const noexcept { return path_; }
    /// As BlueZ spells it.
    const Ref<String>& address() const noexcept { return address_; }
    /// The product string of the controller's USB device, or else BlueZ's name of it, or else "GenericAdapter". Bytes
    /// as the kernel gives them, not necessarily UTF-8.
    const Ref<String>& name() const noexcept { return name_; }
    bool discovering() const noexcept { return discovering_.load(); }

private:
    friend struct AdapterProbe;

    Adapter(const Ref<Service>& service, Ref<String> path, Ref<String> address);
    ~Adapter() override;

    bool readDiscovering(DBus::DBusConnection* connection) const;
    Ref<String> readName(DBus::DBusConnection* connection) const;
    DBus::MessagePtr callDiscovery(DBus::DBusConnection* connection, bool start, DBusError* error);
    void discoveryChanged(bool started);

    /// The product string of the USB device behind the controller, from sysfs; null when there is none.
    static Ref<String> productName(const Ref<String>& path);
    /// The first line (at most 1023 bytes, trimmed) of a file in a directory, or of the directory itself when the file
    /// name is null. False when there is none: in silence when the file cannot be opened, else with a log line.
    static bool readFirstLineOfFile(const Ref<String>& directory, const Ref<String>& fileName, Ref<String>* line);
    /// The path without links; null when it leads nowhere or is longer than 1023 bytes.
    static Ref<String> resolveRealPath(const Ref<String>& path);

    static std::uint64_t logHandle_;
    static const InitCode::Register registerLog_;

    const WeakRef<Service> service_;  // an adapter never keeps the service alive
    const Ref<String> path_;
    const Ref<String> address_;
    Ref<String> name_;
    std::atomic<bool> discovering_{false};
};

}  // namespace Services::Bluetooth::Linux
