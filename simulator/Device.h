#ifndef SIMULATOR_DEVICE_H
#define SIMULATOR_DEVICE_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "simulator/Pairing.h"
#include "simulator/World.h"

namespace Simulator {

/// A remote device that bluetoothd shows: the object with org.bluez.Device1. It is on the bus as long as it exists.
class Device {
public:
    /// What is to destroy the device when it goes by itself: true when it left the air, false when it is only
    /// forgotten.
    using Leave = std::function<void(bool isOffTheAir)>;

    /// The object appears at once. `unbusy` is called when a pairing has ended, before Pair is answered.
    Device(World& world, const std::string& adapterPath, const DevicePlan& plan, const Model& model, Leave leave,
           std::function<void()> unbusy);
    /// A pairing under way ends with ConnectionAttemptFailed, as when bluetoothd removes a device.
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    const std::string& path() const { return path_; }
    bool isPairing() const { return pairing_ != nullptr; }

    static const MethodTable<Device>& methods();
    /// The type of a property that clients may write, 0 when they may not.
    static char writableType(const std::string& property);
    /// Properties.Set of such a property with a value of that type.
    void write(const std::string& property, const Value& value);
    void clientGone(const std::string& client);

    /// The inquiry saw the device (again).
    void seen();
    /// No inquiry sees the device any more.
    void unseen();
    /// The adapter lost its power; a device that is not kept is forgotten at once.
    void poweredOff();

    /// The pincode that was shown last, empty when none was.
    const std::string& pinCode() const { return pinCode_; }
    /// Somebody types at the device. False when it waits for nothing to be typed.
    bool type(const std::string& pinCode);

    // For the pairing under way.
    void showPinCode(const std::string& pinCode) { pinCode_ = pinCode; }
    /// Ends the pairing, with an error or without, and destroys it.
    void pairingEnded(const std::optional<Error>& error);
    /// The device leaves the air; without an answer to Pair when `isSilent`.
    void vanish(bool isSilent);

private:
    void pair(const Call& call);
    void cancelPairing(const Call& call);
    void connect(const Call& call);
    void disconnect(const Call& call);
    void connectProfile(const Call& call);
    void disconnectProfile(const Call& call);

    /// Whether the adapter has power.
    bool isReachable() const;
    bool isTrue(const char* property) const;
    void showPaired();
    void tell(const NamedValues& values);
    void showConnected(bool isConnected);
    bool isKept() const;
    void forgetAfter(milliseconds patience);
    void leave(bool isOffTheAir);

    World& world_;
    const std::string path_;
    const Model& model_;
    const Value services_;  // what it offers
    const bool isKnown_;    // from the start, and kept
    Leave leave_;
    const std::function<void()> unbusy_;
    std::string pinCode_;
    std::unique_ptr<Pairing> pairing_;
    Timer forgetting_;
    Timer connecting_;
    std::optional<Call> connectCall_;
};

}  // namespace Simulator

#endif
