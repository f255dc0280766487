#include "tests/unit/devices/World.h"

#include <cstdlib>

#include "adapters/Adapters.h"
#include "platform/host/Crc.h"

namespace Services::Bluetooth::Linux {

std::size_t DeviceProbe::waiters(Device& device) {
    const MonGuard guard(device.waitersLock_);
    return device.waiters_->items.size();
}

Ref<PairingAttempt> DeviceProbe::attempt(Device& device) {
    const MonGuard guard(device.waitersLock_);
    return device.attempt_;
}

}  // namespace Services::Bluetooth::Linux

namespace UnitTest {

namespace {

constexpr const char* kAgentPath = "/com/kelvo/bluetooth/service";
constexpr const char* kAgentManager = "org.bluez.AgentManager1";

void stopAndAwait(const Ref<Libraries::Service::Base>& nodeService) {
    nodeService->stop();
    nodeService->wait(Sem::kNoLimit);
}

class NobodyListens final : public RefCount, public AuthenticationAgent::EventListener {
public:
    void handleEvent(const AuthenticationAgent::Event&) override {}
};

}  // namespace

World::World() : bluez_(PrivateBus::address()) {
    nodeRoot();
    bluez_.on(kAgentManager, "RegisterAgent", FakePeer::answers());
    bluez_.on(kAgentManager, "UnregisterAgent", FakePeer::fails("org.bluez.Error.DoesNotExist"));
    service_ = Service::create();
    if (!service_) std::abort();
    dispatcher_ = std::thread([this] {
        const Interrupt::Bind bind(dispatchInterrupt_);
        while (!ends_ && DBus::dbus_connection_read_write_dispatch(service_->connection(), 500)) {
        }
    });
    if (!service_->agent().registerAgent(service_->connection())) std::abort();
    serviceName_ = bluez_.calls().front().sender;
    bluez_.forgetCalls();
    log_.forget();
}

World::~World() {
    endService();
}

void World::endService() {
    if (!service_) return;
    ends_ = true;
    DBus::dbus_connection_wakeup(service_->connection());
    dispatcher_.join();
    stopAndAwait(service_->devices().service());
    stopAndAwait(service_->adapters().service());
    service_.reset();
}

void World::describe(const std::string& path, const std::string& alias, bool paired, std::uint32_t classOfDevice) {
    bluez_.setProperty(path, kDeviceInterface, "Alias", alias);
    bluez_.setProperty(path, kDeviceInterface, "Paired", paired);
    bluez_.setProperty(path, kDeviceInterface, "Class", classOfDevice);
}

void World::offer(const std::string& path, std::vector<std::string> uuids) {
    bluez_.setProperty(path, kDeviceInterface, "UUIDs", std::move(uuids));
}

Ref<Device> World::makeDevice(const std::string& path, const std::string& address) {
    Ref<Device> device(new Device(service_, text(path), text(address)));
    device->installPropertyWatch(service_->connection());
    return device;
}

Ref<Device> World::makeUnpaired(const std::string& path, const std::string& address) {
    describe(path, "Keyboard", false, 0x540);
    return makeDevice(path, address);
}

Ref<Device> World::makePaired(const std::string& path, const std::string& address) {
    describe(path, "Keyboard", true, 0x540);
    return makeDevice(path, address);
}

Ref<Device> World::publish(const std::string& path, const std::string& address) {
    describe(path, "Keyboard", false, 0x540);
    Devices& devices = service_->devices();
    if (!devices.addDevice(text(path), text(address), service_)) return nullptr;
    return devices.findDevice(nodeIdOf(path));
}

void World::settle() {
    // The dispatch thread answers this after what came before.
    if (!bluez_.call(serviceName_, kAgentPath, "org.freedesktop.DBus.Introspectable", "Introspect")) std::abort();
}

void World::onDispatchThread(const std::function<void()>& function) {
    static constexpr const char* kInterface = "test.Dispatch";
    const DBus::DBusHandleMessageFunction filter = [](DBus::DBusConnection*, DBusMessage* message, void* data) {
        const char* const interface = DBus::dbus_message_get_interface(message);
        if (!interface || std::string_view(interface) != kInterface) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        (*static_cast<const std::function<void()>*>(data))();
        return DBUS_HANDLER_RESULT_HANDLED;
    };
    void* const data = const_cast<std::function<void()>*>(&function);
    DBus::dbus_connection_add_filter(service_->connection(), filter, data, nullptr);
    bluez_.emit("/", kInterface, "Run", {}, serviceName_);
    settle();
    DBus::dbus_connection_remove_filter(service_->connection(), filter, data);
}

void World::displayPincode(const std::string& path, const std::string& pincode) {
    const auto reply = bluez_.call(serviceName_, kAgentPath, "org.bluez.Agent1", "DisplayPinCode", [&](auto* iter) {
        append(iter, ObjectPath{path});
        append(iter, pincode);
    });
    if (!reply) std::abort();
    settle();
}

void World::emitChanged(const std::string& path, const std::string& interface, const BusDict& changed) {
    bluez_.emit(path, kProperties, "PropertiesChanged", [&](DBusMessageIter* iter) {
        append(iter, interface);
        append(iter, changed);
        append(iter, std::vector<std::string>{});
    });
}

bool World::listened(const std::string& path) {
    AuthenticationAgent& agent = service_->agent();
    if (!agent.addListener(text(path), Ref<AuthenticationAgent::EventListener>(new NobodyListens))) return true;
    agent.removeListener(text(path));
    return false;
}

std::unique_ptr<Request<Connected>> World::connect(const Ref<Device>& device, std::uint32_t timeoutMs) {
    return std::make_unique<Request<Connected>>([device, timeoutMs] {
        const auto [result, pincode] = device->pair(timeoutMs);
        return Connected(result, viewOf(pincode));
    });
}

std::unique_ptr<Request<std::uint32_t>> World::awaitPaired(const Ref<Device>& device, std::uint32_t timeoutMs) {
    return std::make_unique<Request<std::uint32_t>>([device, timeoutMs] { return device->waitPaired(timeoutMs); });
}

std::unique_ptr<Request<std::uint32_t>> World::disconnect(const Ref<Device>& device) {
    return std::make_unique<Request<std::uint32_t>>([device] { return device->unpair(); });
}

std::unique_ptr<Request<std::int32_t>> World::activate(const Ref<Device>& device, std::uint32_t number) {
    return std::make_unique<Request<std::int32_t>>([device, number] { return device->activateProfile(number); });
}

std::unique_ptr<FakePeer::Request> World::beginPairing(const Ref<Device>& device,
                                                       std::unique_ptr<Request<Connected>>* request) {
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    *request = connect(device);
    auto held = bluez_.takeHeld();
    if (!held) std::abort();
    return held;
}

bool World::waitForWaiters(const Ref<Device>& device, std::size_t number) {
    return waitUntil([&] { return DeviceProbe::waiters(*device) == number; });
}

bool World::waitForState(const Ref<Device>& device, PairingState state) {
    return waitUntil([&] { return device->getPairingState() == state; });
}

bool World::waitForThreadsBefore(const Ref<Mon>& monitor, unsigned number) {
    return waitUntil([&] { return MonProbe::waiting(*monitor) == number; });
}

bool World::goesAway(Ref<Device>& device) {
    const WeakRef<Device> weak(device);
    device.reset();
    return waitUntil([&] { return !weak.lock(); });
}

std::uint64_t nodeIdOf(const std::string& path) {
    namespace CRC = Libraries::Filter::CRC;
    const Ref<CRC::CRC32> checksum = CRC::CRC32::create(CRC::Type::Default, true);
    checksum->write(path);
    checksum->finish();
    return checksum->value();
}

}  // namespace UnitTest
