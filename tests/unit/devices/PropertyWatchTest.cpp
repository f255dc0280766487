#include "tests/unit/devices/World.h"
#include "tests/unit/support/BusMonitor.h"

namespace UnitTest {
namespace {

class PropertyWatch : public World {
protected:
    static constexpr const char* kBus = "org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.";

    static std::string rule(const std::string& path) {
        return "\"type='signal', interface='org.freedesktop.DBus.Properties', path='" + path + "'\"";
    }
};

/// Counts what the filters before it left unhandled.
class Unhandled {
public:
    explicit Unhandled(DBus::DBusConnection* connection) : connection_(connection) {
        DBus::dbus_connection_add_filter(connection_, &Unhandled::onMessage, this, nullptr);
    }
    ~Unhandled() { DBus::dbus_connection_remove_filter(connection_, &Unhandled::onMessage, this); }
    Unhandled(const Unhandled&) = delete;
    Unhandled& operator=(const Unhandled&) = delete;
    int propertySignals() const { return propertySignals_; }
    int otherSignals() const { return otherSignals_; }

private:
    static DBusHandlerResult onMessage(DBus::DBusConnection*, DBusMessage* message, void* self) {
        auto* const counter = static_cast<Unhandled*>(self);
        if (DBus::dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL) {
            const std::string_view interface = DBus::dbus_message_get_interface(message);
            if (interface == "org.freedesktop.DBus") return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;  // NameAcquired
            ++(interface == "org.freedesktop.DBus.Properties" ? counter->propertySignals_ : counter->otherSignals_);
        }
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }

    DBus::DBusConnection* connection_;
    std::atomic<int> propertySignals_{0};
    std::atomic<int> otherSignals_{0};
};

TEST_F(PropertyWatch, AddsOneMatchRuleOfItsPathAndRemovesTheSame) {
    const BusMonitor monitor(PrivateBus::address());
    Ref<Device> device = makeUnpaired();
    ASSERT_TRUE(monitor.waitFor(kBus + ("AddMatch(" + rule(kPath) + ")")));
    EXPECT_TRUE(goesAway(device));
    ASSERT_TRUE(monitor.waitFor(kBus + ("RemoveMatch(" + rule(kPath) + ")")));
    EXPECT_EQ(log_.records().size(), 0u);
}

TEST_F(PropertyWatch, TakesAChangedAlias) {
    const Ref<Device> device = makeUnpaired();
    emitChanged(kPath, kDeviceInterface, {{"Alias", "Kitchen"}});
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Kitchen");
}

TEST_F(PropertyWatch, TakesAnAliasAmongOtherProperties) {
    const Ref<Device> device = makeUnpaired();
    emitChanged(kPath, kDeviceInterface, {{"RSSI", std::int16_t{-40}}, {"Alias", "Kitchen"}, {"Paired", true}});
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Kitchen");
}

TEST_F(PropertyWatch, ChangesNothingForOtherPropertiesAndHandlesTheSignal) {
    const Ref<Device> device = makeUnpaired();
    const Unhandled rest(service_->connection());
    emitChanged(kPath, kDeviceInterface,
                {{"Paired", true}, {"Class", std::uint32_t{1}}, {"UUIDs", std::vector<std::string>{"x"}}});
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Keyboard");
    EXPECT_EQ(device->getPairingState(), PairingState::Unpaired);
    EXPECT_EQ(device->getClassOfDevice(), 0x540u);
    EXPECT_EQ(rest.propertySignals(), 0);
}

TEST_F(PropertyWatch, HandlesASignalOfAnotherInterfaceWithoutChange) {
    const Ref<Device> device = makeUnpaired();
    const Unhandled rest(service_->connection());
    emitChanged(kPath, "org.bluez.Adapter1", {{"Alias", "Adapter"}});
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Keyboard");
    EXPECT_EQ(rest.propertySignals(), 0);
}

TEST_F(PropertyWatch, GivesAllPropertySignalsToTheDeviceAddedFirst) {
    const Ref<Device> first = makeUnpaired();
    const Ref<Device> second = makeUnpaired(kOtherPath, kOtherAddress);
    emitChanged(kOtherPath, kDeviceInterface, {{"Alias", "Second"}});
    settle();
    EXPECT_EQ(viewOf(first->getName()), "Second");
    EXPECT_EQ(viewOf(second->getName()), "Keyboard");
}

TEST_F(PropertyWatch, PassesOnToTheNextDeviceOnceTheFirstIsGone) {
    Ref<Device> first = makeUnpaired();
    const Ref<Device> second = makeUnpaired(kOtherPath, kOtherAddress);
    ASSERT_TRUE(goesAway(first));
    emitChanged(kOtherPath, kDeviceInterface, {{"Alias", "Second"}});
    settle();
    EXPECT_EQ(viewOf(second->getName()), "Second");
}

TEST_F(PropertyWatch, IgnoresAnAliasThatIsNoString) {
    const Ref<Device> device = makeUnpaired();
    emitChanged(kPath, kDeviceInterface, {{"Alias", std::uint32_t{7}}});
    emitChanged(kPath, kDeviceInterface, {{"Alias", ObjectPath{"/alias"}}});
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Keyboard");
}

TEST_F(PropertyWatch, HandlesMalformedSignalsWithoutChange) {
    const Ref<Device> device = makeUnpaired();
    const Unhandled rest(service_->connection());
    const auto emit = [&](const FakePeer::Build& build) { bluez_.emit(kPath, kProperties, "Whatever", build); };
    emit({});
    emit([](DBusMessageIter* iter) { append(iter, std::uint32_t{1}); });
    emit([](DBusMessageIter* iter) { append(iter, ObjectPath{"/org/bluez"}); });
    emit([](DBusMessageIter* iter) { append(iter, "org.bluez.Device1"); });
    emit([](DBusMessageIter* iter) {
        append(iter, "org.bluez.Device1");
        append(iter, "Alias");
    });
    emit([](DBusMessageIter* iter) {
        append(iter, "org.bluez.Device1");
        append(iter, std::vector<std::string>{"Alias", "Kitchen"});
    });
    emit([](DBusMessageIter* iter) {
        append(iter, "org.bluez.Device1");
        append(iter, BusInterfaces{{"Alias", {{"Alias", "Kitchen"}}}});  // no variant behind the key
    });
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Keyboard");
    EXPECT_EQ(rest.propertySignals(), 0);
}

TEST_F(PropertyWatch, LooksNeitherAtTheMemberNorAtThePath) {
    const Ref<Device> device = makeUnpaired();
    bluez_.emit(
        "/elsewhere", kProperties, "Whatever",
        [](DBusMessageIter* iter) {
            append(iter, "org.bluez.Device1");
            append(iter, BusDict{{"Alias", "Elsewhere"}});
        },
        serviceName_);
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Elsewhere");
}

TEST_F(PropertyWatch, TakesCallsOfTheInterfaceAsWell) {
    const Ref<Device> device = makeUnpaired();
    bluez_.call(
        serviceName_, kPath, kProperties, "Set",
        [](DBusMessageIter* iter) {
            append(iter, "org.bluez.Device1");
            append(iter, BusDict{{"Alias", "Called"}});
        },
        std::chrono::milliseconds(1));
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Called");
}

TEST_F(PropertyWatch, LeavesOtherInterfacesToOtherFilters) {
    const Ref<Device> device = makeUnpaired();
    const Unhandled rest(service_->connection());
    bluez_.emit(
        kPath, "org.bluez.Device1", "Disconnected",
        [](DBusMessageIter* iter) {
            append(iter, "org.bluez.Device1");
            append(iter, BusDict{{"Alias", "Kitchen"}});
        },
        serviceName_);
    settle();
    EXPECT_EQ(viewOf(device->getName()), "Keyboard");
    EXPECT_EQ(rest.otherSignals(), 1);
}

TEST_F(PropertyWatch, LogsARuleThatTheBusRefusesAndDoesWithoutAFilter) {
    const std::string path = "/org/bluez/hci0/" + std::string(1100, 'a');  // too long for a rule
    Ref<Device> device(new Device(service_, text(path), text(kAddress)));
    log_.forget();
    device->installPropertyWatch(service_->connection());
    ASSERT_EQ(log_.records().size(), 1u);
    EXPECT_EQ(log_.records()[0].find("3 Could not add properties filter for device " + path + ": "), 0u);
    bluez_.emit(
        kPath, kProperties, "PropertiesChanged",
        [](DBusMessageIter* iter) {
            append(iter, "org.bluez.Device1");
            append(iter, BusDict{{"Alias", "Kitchen"}});
        },
        serviceName_);
    settle();
    EXPECT_EQ(viewOf(device->getName()), "GenericDevice");
    log_.forget();
    EXPECT_TRUE(goesAway(device));
    ASSERT_EQ(log_.records().size(), 1u);
    EXPECT_EQ(log_.records()[0].find("3 Could not remove properties changed filter for device " + path + ": "), 0u);
}

// Races

TEST_F(PropertyWatch, ASignalBeingHandledEndsBeforeTheDeviceGoes) {
    // The filter is inside its walk from the moment the first of very many names is there to the moment the last is.
    constexpr int kEntries = 20000;
    BusDict changed;
    for (int entry = 0; entry < kEntries; ++entry) changed.emplace_back("Alias", "name " + std::to_string(entry));
    for (int round = 0; round < 5; ++round) {
        describe(kPath, "Keyboard", false, 0);
        ASSERT_TRUE(service_->devices().addDevice(text(kPath), text(kAddress), service_));
        Request<bool> client([this, device = service_->devices().findDevice(nodeIdOf(kPath))] {
            const bool inside = waitUntil([&] { return !device->getName()->equals("Keyboard"); });
            service_->devices().removeDevice(text(kPath));
            return inside;  // and gives back the last reference
        });
        emitChanged(kPath, kDeviceInterface, changed);
        EXPECT_TRUE(client.answer());
        settle();
    }
}

TEST_F(PropertyWatch, ClientsDropDevicesWhileSignalsPourIn) {
    std::atomic<bool> ends{false};
    std::thread flood([&] {
        while (!ends) {
            for (int signal = 0; signal < 50; ++signal) emitChanged(kPath, kDeviceInterface, {{"Alias", "Kitchen"}});
            settle();
        }
    });
    for (int round = 0; round < 300; ++round) {
        Ref<Device> device = makeUnpaired();
        Request<bool> one([device] { return device->getName() != nullptr; });
        Request<bool> other([device = std::move(device)] { return device->getName() != nullptr; });
        EXPECT_TRUE(one.answer());
        EXPECT_TRUE(other.answer());
    }
    ends = true;
    flood.join();
}

TEST_F(PropertyWatch, TheNameIsReplacedWhileItIsRead) {
    const Ref<Device> device = makeUnpaired();
    std::atomic<bool> ends{false};
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 2; ++reader) {
        readers.emplace_back([&] {
            while (!ends) {
                const Ref<String> name = device->getName();
                ASSERT_TRUE(name->equals("Keyboard") || name->view() == std::string(40, name->view().front()));
            }
        });
    }
    for (int round = 0; round < 2000; ++round) {
        emitChanged(kPath, kDeviceInterface, {{"Alias", std::string(40, static_cast<char>('a' + round % 26))}});
    }
    settle();
    ends = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(viewOf(device->getName()), std::string(40, static_cast<char>('a' + 1999 % 26)));
}

}  // namespace
}  // namespace UnitTest
