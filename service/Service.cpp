#include "service/Service.h"

#include <utility>

#include "adapters/Adapters.h"
#include "devices/Devices.h"
#include "platform/host/SysLog.h"

// The thread rule of the whole program. The main thread starts up and then dispatches: filters, the agent's messages
// and completions run on it alone. A client's request runs on a thread of the node framework and may wait, for the bus,
// for a monitor, for a pairing. The dispatch thread waits where a registry adds or removes an object (property reads,
// match rules, the registry's monitor), where a device has been paired (its profiles, and the lock of their list), and
// between tries to cancel a pairing. Every wait of a request ends when its node service is stopped, and every one but
// that for a plain bus call (a property, the removal of a device: their answers are needed to go on, and come within
// 25 s) when its client hangs up. Every wait of the dispatch thread inside run() ends when a stop is requested, but for
// monitors that others hold for a few instructions only. No lock is held over a callback.

namespace Services::Bluetooth::Linux {

namespace {

constexpr int kDispatchWaitMs = 500;
constexpr std::uint32_t kNoTimeLimit = 0xFFFFFFFFu;

/// Withdraws the service's nodes and waits until none of its requests runs any more. This also ends the cycle of
/// references between a started node service and its server.
void stopAndAwait(const Ref<Libraries::Service::Base>& nodeService) {
    if (!nodeService) return;
    nodeService->stop();
    nodeService->wait(kNoTimeLimit);
}

}  // namespace

std::uint64_t Service::logHandle_ = 0;
const InitCode::Register Service::registerLog_([] {
    logHandle_ = SysLogFilter::reg(String::create("ServiceBluetoothLinux"));
});

Ref<Service> Service::create() {
    Ref<Adapters> adapters(new Adapters);
    if (!adapters->start()) return nullptr;
    Ref<Devices> devices(new Devices);
    if (!devices->start()) {
        stopAndAwait(adapters->service());
        return nullptr;
    }
    // The control nodes are started last. When the start fails before that, those of a killed process go all the same.
    Libraries::Service::Single::clearLeftovers(String::create(kServerName));

    DBus::dbus_threads_init_default();
    DBusError error;
    DBus::dbus_error_init(&error);
    DBus::DBusConnection* const connection = DBus::dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    if (!connection) {
        LogRecord(4, logHandle_) << "Could not create connection: " << error.message;
        stopAndAwait(devices->service());
        stopAndAwait(adapters->service());
        return nullptr;
    }
    // A lost bus must not end the process from inside the library; the dispatch loop notices it.
    DBus::dbus_connection_set_exit_on_disconnect(connection, false);
    return Ref<Service>(new Service(connection, std::move(adapters), std::move(devices)));
}

Service::Service(DBus::DBusConnection* connection, Ref<Adapters> adapters, Ref<Devices> devices)
    : connection_(connection), adapters_(std::move(adapters)), devices_(std::move(devices)) {}

Service::~Service() {
    if (connection_) {
        agent_.unregisterAgent(connection_);
        // The match rule and the filter for BlueZ's objects end with the private connection.
        DBus::dbus_connection_close(connection_);
        DBus::dbus_connection_unref(connection_);
        connection_ = nullptr;
    }
    masterServer_.reset();
    serviceServer_.reset();
    nodeService_.reset();
    devices_.reset();
    adapters_.reset();
}

bool Service::initialize() {
    dispatchThread_.check();
    if (setUp()) return true;
    // What was found is published already, and requests on it may be in progress: they end before the caller lets the
    // service go, or the last reference would be one of theirs.
    stopNodeServices();
    return false;
}

bool Service::setUp() {
    LogRecord(1, logHandle_) << "Initializing service";
    if (!discoverExisting() || !installObjectFilter() || !agent_.registerAgent(connection_)) return false;
    if (!createNodes()) {
        agent_.unregisterAgent(connection_);
        return false;
    }
    LogRecord(1, logHandle_) << "Service successfully initialized";
    return true;
}

void Service::run() {
    dispatchThread_.check();
    dispatchUntilStopped();
    stopNodeServices();
    if (stopRequested_.load()) {
        LogRecord(1, logHandle_) << "Service terminated";
    } else {
        LogRecord(3, logHandle_) << "Connection lost, service terminated";
    }
}

void Service::dispatchUntilStopped() {
    const Interrupt* const host = Interrupt::current();
    const Interrupt::Bind bind(stopInterrupt_);
    while (!stopRequested_.load() && DBus::dbus_connection_read_write_dispatch(connection_, kDispatchWaitMs)) {
        // The host delivers a signal as a STOP; it raises its own interrupt where that cannot be, since something else
        // stands in the tree where bluetooth/service should be.
        if (host && host->level() >= Interrupt::Level::End) terminate();
    }
}

void Service::stopNodeServices() {
    stopAndAwait(devices_->service());
    stopAndAwait(adapters_->service());
    stopAndAwait(nodeService_);
}

void Service::terminate() {
    requestStop();
    LogRecord(1, logHandle_) << "Service terminate requested";
}

void Service::requestStop() {
    stopRequested_.store(true);
    stopInterrupt_.raise(Interrupt::Level::End);
    DBus::dbus_connection_wakeup(connection_);
}

}  // namespace Services::Bluetooth::Linux
