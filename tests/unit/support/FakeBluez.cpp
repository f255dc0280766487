#include "tests/unit/support/FakeBluez.h"

#include "tests/unit/support/PrivateBus.h"

namespace UnitTest {

FakeBluez::FakeBluez() : peer_(PrivateBus::address()) {
    peer_.on(kManager, "GetManagedObjects", [this](const FakePeer::Request& request) {
        const std::lock_guard guard(lock_);
        request.reply([this](DBusMessageIter* arguments) { append(arguments, objects_); });
    });
    peer_.on(kAgentManager, "RegisterAgent", FakePeer::answers());
    peer_.on(kAgentManager, "UnregisterAgent", FakePeer::fails("org.bluez.Error.InvalidArguments", "no agent given"));
}

void FakeBluez::addAdapter(const std::string& path, const std::string& address, const std::string& name,
                           bool discovering) {
    peer_.setProperty(path, kAdapter, "Address", address);
    peer_.setProperty(path, kAdapter, "Name", name);
    peer_.setProperty(path, kAdapter, "Discovering", discovering);
    addObject(path, {{kAdapter, {{"Address", address}}}});
}

void FakeBluez::addObject(const std::string& path, const BusInterfaces& interfaces) {
    const std::lock_guard guard(lock_);
    objects_.emplace_back(path, interfaces);
}

void FakeBluez::announce(const std::string& path, const BusInterfaces& interfaces) {
    peer_.emit("/", kManager, "InterfacesAdded", [&](DBusMessageIter* arguments) {
        append(arguments, ObjectPath{path});
        append(arguments, interfaces);
    });
}

void FakeBluez::withdraw(const std::string& path, const std::vector<std::string>& interfaces) {
    peer_.emit("/", kManager, "InterfacesRemoved", [&](DBusMessageIter* arguments) {
        append(arguments, ObjectPath{path});
        append(arguments, interfaces);
    });
}

}  // namespace UnitTest
