#pragma once

#include <atomic>
#include <initializer_list>
#include <utility>

#include "agent/AuthenticationAgent.h"
#include "devices/PairingAttempt.h"
#include "devices/PairingState.h"
#include "devices/ProfileList.h"
#include "devices/SharedRef.h"
#include "platform/host/Mon.h"
#include "platform/host/ThreadCheck.h"
#include "platform/nodes/DeviceNode.h"

namespace Services::Bluetooth::Linux {

class Service;

/// One remote device that BlueZ knows: its alias and class, its pairing, its profiles.
///
/// Requests call it on their threads and may wait; pincodes, BlueZ's answers and signals reach it on the dispatch
/// thread. It holds the service weakly, and does nothing on the bus once that is gone.
///
/// Its pairing:
/// - Unpaired: nothing is outstanding and nobody waits.
/// - Pairing: BlueZ was asked and owes an answer. The request that asked waits for a pincode or for that answer; others
///   may wait for the end of the pairing; the agent has the device as a listener.
/// - Pincode: as Pairing, but the request that asked was answered with the pincode. BlueZ still owes its answer.
/// - Cancelling: BlueZ was told to give up and still owes its answer, which wakes everybody: the request that asked if
///   it got no pincode, those that wait for the end, the one that cancelled. An answer that says "paired" all the same
///   wakes them too but does not change the state; nothing is outstanding then, so that later waits end at once.
/// - Paired: nothing is outstanding. Who waited is woken once the profiles were read.
/// - Unpairing: a paired device that was asked to unpair. Nothing is outstanding and BlueZ was not told; the device
///   stays so until BlueZ removes it, and who waits meanwhile waits for that or for the time-out. A request that still
///   holds a removed device does not wait.
///
/// In the three states that wait for BlueZ, its answer is taken exactly once, at the latest when the connection ends,
/// and wakes whoever waits, whatever becomes of the state. A wait that enters the list and a step that wakes the list
/// exclude each other, so none is missed.
class Device final : public RefCount, public AuthenticationAgent::EventListener {
public:
    /// Reads alias, pairing and class from BlueZ, waiting for each; what cannot be read gets a default and a log line.
    Device(const Ref<Service>& service, Ref<String> path, Ref<String> address);

    /// BlueZ's object path.
    const Ref<String>& getPath() const noexcept { return path_; }
    const Ref<String>& getAddress() const noexcept { return address_; }
    Ref<String> getName() const { return name_.load(); }
    std::uint32_t getClassOfDevice() const noexcept { return classOfDevice_; }
    PairingState getPairingState() const noexcept { return static_cast<PairingState>(pairingState_.load()); }
    /// The server of the device's own node.
    DeviceServer& server() const noexcept { return *server_; }

    /// Follows property changes from here on. Called once; waits for the bus.
    void installPropertyWatch(DBus::DBusConnection* connection);

    /// Asks BlueZ to pair and waits for a pincode or the answer, which BlueZ gives within `timeoutMs` milliseconds
    /// (4294967295: whenever it likes): 0 paired, 1 and the pincode to be typed, -1 failed, cancelled, refused because
    /// the device is not Unpaired, or interrupted (then the pairing goes on).
    std::pair<std::int32_t, Ref<String>> pair(std::uint32_t timeoutMs);
    /// Waits at most `timeoutMs` milliseconds (4294967295: no limit) for the end of the pairing under way.
    std::uint32_t waitPaired(std::uint32_t timeoutMs);
    /// Cancels the pairing under way and waits for its end.
    std::uint32_t unpair();
    /// BlueZ has removed the device: that ends an unpairing. Dispatch thread.
    void removed();
    /// Dispatch thread.
    void handleEvent(const AuthenticationAgent::Event& event) override;

    /// Wait as long as a profile is being connected; when interrupted meanwhile, there is none.
    std::size_t profileCount();
    /// Null when there is none (any more) at the index.
    Ref<Profile> profileAt(std::size_t index);
    /// Has BlueZ connect the first profile with this number, waiting up to 1000 ms for it: 0, or -1 when there is no
    /// such profile that is inactive or the call failed.
    std::int32_t activateProfile(std::uint32_t number);

private:
    friend struct DeviceProbe;

    /// The service, held for the length of one operation; false when it is gone.
    struct ServiceHold {
        Ref<Object> keep;
        DBus::DBusConnection* connection = nullptr;
        AuthenticationAgent* agent = nullptr;
        explicit operator bool() const noexcept { return keep != nullptr; }
    };

    /// An outstanding call of Pair: the user data of its completion, freed by the bus library after it or instead of
    /// it.
    struct PairCall {
        Ref<Device> device;
        Ref<PairingAttempt> attempt;
    };

    ~Device() override;

    // Device.cpp
    ServiceHold holdService() const;
    bool readProperty(const ServiceHold& service, const char* property, int type, DBusBasicValue* value) const;

    // Pairing.cpp
    bool setPairingState(PairingState next) EXCLUDES(*waitersLock_);
    bool transit(PairingState next, const ServiceHold& service) REQUIRES(*waitersLock_);
    bool transitFrom(std::initializer_list<PairingState> allowed, PairingState next);
    void listen(const ServiceHold& service) REQUIRES(*waitersLock_);
    void wakeWaiters(const ServiceHold& service) REQUIRES(*waitersLock_);
    Ref<Sem> enterWaiters() REQUIRES(*waitersLock_);
    void leaveWaiters(const Ref<Sem>& waiter) EXCLUDES(*waitersLock_);
    Ref<PairingAttempt> beginPairing(std::uint32_t timeoutMs) EXCLUDES(*waitersLock_);
    bool sendPair(const ServiceHold& service, std::uint32_t timeoutMs) REQUIRES(*waitersLock_);
    static void onPairAnswered(DBus::DBusPendingCall* pending, void* call);
    static void onPairCallFreed(void* call);
    void pairAnswered(PairingAttempt& attempt, DBusMessage* reply);
    void endAttempt(PairingAttempt& attempt, PairingState next, PairingAttempt::Result result);
    void finishAttempt(PairingAttempt& attempt, bool stateChanged, PairingAttempt::Result result);
    bool cancelPairing(const ServiceHold& service, const PairingAttempt& attempt) EXCLUDES(*waitersLock_);
    void cancelUntilSent(const PairingAttempt& attempt) EXCLUDES(*waitersLock_);
    std::uint32_t removeDevice();

    // Profiles.cpp
    void retrieveProfiles() EXCLUDES(*profilesLock_);
    void appendProfiles(DBusMessageIter* value) EXCLUDES(*profilesLock_);
    std::int32_t connectProfile(std::uint32_t number) REQUIRES(*profilesLock_);

    // PropertyWatch.cpp
    void removePropertyWatch();
    static DBusHandlerResult onPropertiesMessage(DBus::DBusConnection* connection, DBusMessage* message, void* device);
    DBusHandlerResult propertiesChanged(DBusMessage* message);
    bool onChangedProperty(DBusMessageIter* entry);

    const WeakRef<Service> service_;
    const Ref<DeviceServer> server_;
    const Ref<String> path_;
    const Ref<String> address_;
    SharedRef<String> name_;
    std::uint32_t classOfDevice_ = 0;
    // Changed under profilesLock_, which is held over the call that connects a profile; but emptied without it.
    ProfileList profiles_;
    const Ref<Mon> profilesLock_;
    std::atomic<std::uint64_t> pairingState_;
    // The pairing under way, else the last one.
    Ref<PairingAttempt> attempt_ GUARDED_BY(*waitersLock_);
    bool removed_ GUARDED_BY(*waitersLock_) = false;
    const Ref<TVector<Ref<Sem>>> waiters_ PT_GUARDED_BY(*waitersLock_);
    // Also makes one step of a change of state and what goes with it: its attempt, the agent's listener, waking, and
    // the order in which calls to BlueZ are queued. Held for a few instructions, never over a wait.
    const Ref<Mon> waitersLock_;
    ThreadCheck dispatchThread_;
};

}  // namespace Services::Bluetooth::Linux
