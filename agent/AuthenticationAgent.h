#pragma once

#include "platform/dbus/DBus.h"
#include "platform/host/Containers.h"
#include "platform/host/Mon.h"
#include "platform/host/ThreadCheck.h"
#include "platform/nodes/NodeValue.h"

namespace Services::Bluetooth::Linux {

namespace DBus = Libraries::Platform::Posix::DBus;

/// The pairing agent on the bus: BlueZ hands it the pincode that the user must type on the remote device, and it hands
/// the pincode on to the device that is pairing. A plain member of the Service.
///
/// The bus side runs on the dispatch thread and never waits but for BlueZ's answer to its registration. Listeners come
/// and go on any thread; no lock is held while one is told.
class AuthenticationAgent {
public:
    static constexpr std::uint32_t EVENT_DISPLAY_PINCODE = 0;

    /// Built on the stack for one notification, not kept.
    struct Event {
        std::uint32_t type;
        /// For EVENT_DISPLAY_PINCODE one string named "pincode".
        TArray<NodeValue> parameters;
    };

    /// Who wants to be told of events for one device path.
    class EventListener : public virtual Object {
    public:
        /// Dispatch thread; no lock of the agent is held, and it may remove itself.
        virtual void handleEvent(const Event& event) = 0;
    };

    struct EventListenerPrivate {
        Ref<String> path;
        Ref<EventListener> listener;
        bool operator==(const EventListenerPrivate& other) const { return path->equals(other.path); }
    };

    AuthenticationAgent();
    ~AuthenticationAgent();
    AuthenticationAgent(const AuthenticationAgent&) = delete;
    AuthenticationAgent& operator=(const AuthenticationAgent&) = delete;

    /// Exports the agent's object and registers it with BlueZ; true only when both succeed. Waits up to 1000 ms. The
    /// object stays exported for the life of the connection, which must not outlive the agent.
    bool registerAgent(DBus::DBusConnection* connection);
    /// Asks BlueZ to drop the agent. Waits up to 1000 ms.
    void unregisterAgent(DBus::DBusConnection* connection);

    /// False when the path has a listener already (which stays). Any thread.
    bool addListener(Ref<String> path, Ref<EventListener> listener);
    /// False when the path has none. Any thread.
    bool removeListener(Ref<String> path);
    /// As above, but another listener's entry stays: the path may have a successor by now.
    bool removeListener(Ref<String> path, const EventListener* listener);

    /// The exported object's message function; `agent` is the AuthenticationAgent.
    static DBusHandlerResult handleMessage(DBus::DBusConnection* connection, DBusMessage* message, void* agent);

private:
    DBusHandlerResult handle(DBus::DBusConnection* connection, DBusMessage* message) REQUIRES(dispatchThread_);
    DBusHandlerResult introspect(DBus::DBusConnection* connection, DBusMessage* message) REQUIRES(dispatchThread_);
    DBusHandlerResult displayPinCode(DBus::DBusConnection* connection, DBusMessage* message) REQUIRES(dispatchThread_);
    void notifyListener(const Ref<String>& path, const Event& event) REQUIRES(dispatchThread_);
    Ref<EventListener> takeListener(const Ref<String>& path, const EventListener* only);

    ThreadCheck dispatchThread_;
    // Requests add and remove listeners while the dispatch thread looks them up.
    Mon listenersLock_;
    Ref<TVector<EventListenerPrivate>> listeners_ GUARDED_BY(listenersLock_);
};

}  // namespace Services::Bluetooth::Linux
