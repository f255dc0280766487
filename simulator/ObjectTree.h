#ifndef SIMULATOR_OBJECTTREE_H
#define SIMULATOR_OBJECTTREE_H

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/Bus.h"
#include "simulator/MethodTable.h"
#include "simulator/Value.h"

namespace Simulator {

inline constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
inline constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
inline constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";

struct Property {
    std::string name;
    Value value;
    /// Not empty: Get and GetAll fail with this error; the ObjectManager goes on telling the value.
    std::string readError;
};

struct Interface {
    std::string name;
    std::vector<Property> properties;  // in the order in which they are told
};

enum class Notify { Yes, No };

/// The objects that the simulator shows on the bus, with their properties, and what the standard interfaces say of
/// them: ObjectManager, Properties (reading) and Introspectable, with their signals, worded and ordered as bluetoothd's
/// D-Bus library does it. It keeps whatever it is given: what a property may hold is the caller's affair.
class ObjectTree {
public:
    explicit ObjectTree(Bus& bus) : bus_(bus) {}

    /// While quiet it sends no signals: nobody knows the simulator yet.
    void setQuiet(bool isQuiet) { isQuiet_ = isQuiet; }

    /// Sends InterfacesAdded for an object that is there.
    void announce(const std::string& path) const { tellAdded(path, objects_.at(path)); }

    bool has(const std::string& path) const { return objects_.count(path) != 0; }
    bool has(const std::string& path, std::string_view interface) const { return find(path, interface) != nullptr; }
    std::vector<std::string> paths() const;
    /// Whether there is such an object or one below it.
    bool isPrefix(const std::string& path) const;

    /// Shows the object (replacing what was there) as bluetoothd shows every object: Introspectable, the interface,
    /// Properties, and the others.
    void add(const std::string& path, Interface interface, std::vector<Interface> others = {});
    /// Shows the object with exactly these interfaces.
    void addExactly(const std::string& path, std::vector<Interface> interfaces, Notify notify = Notify::Yes);
    void remove(const std::string& path, Notify notify = Notify::Yes);
    /// Shows one more interface of an object. Nothing happens when it has it, or when there is no such object.
    void addInterface(const std::string& path, Interface interface);

    /// Null when there is none.
    const Value* get(const std::string& path, std::string_view interface, std::string_view property) const;
    /// Sets or adds the property; tells only when the value is another than before. False without the interface.
    bool set(const std::string& path, std::string_view interface, const std::string& property, Value value,
             Notify notify = Notify::Yes);
    /// The same for several at once, told in one signal.
    bool setAll(const std::string& path, std::string_view interface, const NamedValues& values,
                Notify notify = Notify::Yes);
    /// Takes properties away; those that were there are told as invalidated. False when there was none of them.
    bool drop(const std::string& path, std::string_view interface, const std::vector<std::string>& properties,
              Notify notify = Notify::Yes);
    /// From now on the property cannot be read; an empty name mends it. False when there is none.
    bool breakReading(const std::string& path, std::string_view interface, const std::string& property,
                      const std::string& errorName);

    /// The methods of an interface, for Introspect.
    void describe(const std::string& interface, std::vector<MethodInfo> methods) {
        methods_[interface] = std::move(methods);
    }

    /// Answers a call of one of the three interfaces, but for Set. False when it is none of them.
    bool handle(const Call& call) const;

    /// Sends PropertiesChanged, whether or not anything changed.
    void tellChanged(const std::string& path, std::string_view interface, const NamedValues& changed,
                     const std::vector<std::string>& invalidated = {}) const;

private:
    using Object = std::vector<Interface>;

    Interface* find(const std::string& path, std::string_view interface);
    const Interface* find(const std::string& path, std::string_view interface) const;
    static int appendInterfaces(sd_bus_message* message, const Object& object);
    static int appendProperties(sd_bus_message* message, const Interface& interface);

    void tellAdded(const std::string& path, const Object& interfaces) const;
    void getManagedObjects(const Call& call) const;
    void get(const Call& call) const;
    void getAll(const Call& call) const;
    void introspect(const Call& call) const;
    std::string introspection(const Interface& interface) const;

    void send(const MessagePtr& signal) const;

    Bus& bus_;
    bool isQuiet_ = false;
    std::map<std::string, Object> objects_;
    std::map<std::string, std::vector<MethodInfo>> methods_;  // by interface
};

}  // namespace Simulator

#endif
