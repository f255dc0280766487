#include "simulator/ObjectTree.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "simulator/ValueText.h"

namespace Simulator {

namespace {

constexpr std::string_view kStandard = "org.freedesktop.DBus.";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

auto findProperty(auto& interface, std::string_view name) {
    return std::find_if(interface.properties.begin(), interface.properties.end(),
                        [&](const Property& property) { return property.name == name; });
}

}  // namespace

std::vector<std::string> ObjectTree::paths() const {
    std::vector<std::string> paths;
    for (const auto& [path, object] : objects_) paths.push_back(path);
    return paths;
}

bool ObjectTree::isPrefix(const std::string& path) const {
    if (path == "/" || has(path)) return true;
    const auto next = objects_.lower_bound(path + "/");
    return next != objects_.end() && next->first.starts_with(path + "/");
}

void ObjectTree::add(const std::string& path, Interface interface, std::vector<Interface> others) {
    std::vector<Interface> interfaces{{kIntrospectable, {}}, std::move(interface), {kProperties, {}}};
    std::move(others.begin(), others.end(), std::back_inserter(interfaces));
    addExactly(path, std::move(interfaces));
}

void ObjectTree::addExactly(const std::string& path, std::vector<Interface> interfaces, Notify notify) {
    auto& object = objects_[path];
    object = std::move(interfaces);
    if (notify == Notify::Yes) tellAdded(path, object);
}

void ObjectTree::addInterface(const std::string& path, Interface interface) {
    const auto object = objects_.find(path);
    if (object == objects_.end() || has(path, interface.name)) return;
    object->second.push_back(std::move(interface));
    tellAdded(path, {object->second.back()});
}

void ObjectTree::tellAdded(const std::string& path, const Object& interfaces) const {
    const auto signal = bus_.newSignal("/", kObjectManager, "InterfacesAdded");
    if (!signal || sd_bus_message_append_basic(signal.get(), 'o', path.c_str()) < 0) return;
    if (appendInterfaces(signal.get(), interfaces) >= 0) send(signal);
}

void ObjectTree::remove(const std::string& path, Notify notify) {
    const auto node = objects_.extract(path);
    if (node.empty() || notify == Notify::No) return;
    std::vector<std::string> names;
    for (const auto& interface : node.mapped()) names.push_back(interface.name);
    // bluetoothd names its own interfaces last.
    std::stable_partition(names.begin(), names.end(), [](const auto& name) { return name.starts_with(kStandard); });
    if (names.size() > 1 && names[0] == kIntrospectable && names[1] == kProperties) std::swap(names[0], names[1]);
    const auto signal = bus_.newSignal("/", kObjectManager, "InterfacesRemoved");
    if (!signal || sd_bus_message_append_basic(signal.get(), 'o', path.c_str()) < 0) return;
    if (Value::strings(names).appendTo(signal.get()) >= 0) send(signal);
}

Interface* ObjectTree::find(const std::string& path, std::string_view interface) {
    return const_cast<Interface*>(std::as_const(*this).find(path, interface));
}

const Interface* ObjectTree::find(const std::string& path, std::string_view interface) const {
    const auto object = objects_.find(path);
    if (object == objects_.end()) return nullptr;
    const auto found = std::find_if(object->second.begin(), object->second.end(),
                                    [&](const Interface& candidate) { return candidate.name == interface; });
    return found == object->second.end() ? nullptr : &*found;
}

const Value* ObjectTree::get(const std::string& path, std::string_view interface, std::string_view property) const {
    const Interface* holder = find(path, interface);
    if (!holder) return nullptr;
    const auto found = findProperty(*holder, property);
    return found == holder->properties.end() ? nullptr : &found->value;
}

bool ObjectTree::set(const std::string& path, std::string_view interface, const std::string& property, Value value,
                     Notify notify) {
    return setAll(path, interface, {{property, std::move(value)}}, notify);
}

bool ObjectTree::setAll(const std::string& path, std::string_view interface, const NamedValues& values, Notify notify) {
    Interface* holder = find(path, interface);
    if (!holder) return false;
    NamedValues changed;
    for (const auto& [name, value] : values) {
        const auto found = findProperty(*holder, name);
        if (found == holder->properties.end()) {
            holder->properties.push_back({name, value, {}});
        } else if (found->value == value) {
            continue;
        } else {
            found->value = value;
        }
        changed.emplace_back(name, value);
    }
    if (notify == Notify::Yes && !changed.empty()) tellChanged(path, interface, changed);
    return true;
}

bool ObjectTree::drop(const std::string& path, std::string_view interface, const std::vector<std::string>& properties,
                      Notify notify) {
    Interface* holder = find(path, interface);
    std::vector<std::string> dropped;
    for (const auto& property : properties) {
        if (!holder) return false;
        const auto found = findProperty(*holder, property);
        if (found == holder->properties.end()) continue;
        holder->properties.erase(found);
        dropped.push_back(property);
    }
    if (notify == Notify::Yes && !dropped.empty()) tellChanged(path, interface, {}, dropped);
    return !dropped.empty();
}

bool ObjectTree::breakReading(const std::string& path, std::string_view interface, const std::string& property,
                              const std::string& errorName) {
    Interface* holder = find(path, interface);
    if (!holder) return false;
    const auto found = findProperty(*holder, property);
    if (found == holder->properties.end()) return false;
    found->readError = errorName;
    return true;
}

void ObjectTree::send(const MessagePtr& signal) const {
    if (!isQuiet_) bus_.send(signal);
}

void ObjectTree::tellChanged(const std::string& path, std::string_view interface, const NamedValues& changed,
                             const std::vector<std::string>& invalidated) const {
    const auto signal = bus_.newSignal(path, kProperties, "PropertiesChanged");
    if (!signal || Value::string(std::string(interface)).appendTo(signal.get()) < 0) return;
    if (dictionary(changed).appendTo(signal.get()) < 0 || Value::strings(invalidated).appendTo(signal.get()) < 0)
        return;
    send(signal);
}

int ObjectTree::appendProperties(sd_bus_message* message, const Interface& interface) {
    int result = sd_bus_message_open_container(message, 'a', "{sv}");
    for (const auto& property : interface.properties) {
        if (result >= 0) result = sd_bus_message_open_container(message, 'e', "sv");
        if (result >= 0) result = sd_bus_message_append_basic(message, 's', property.name.c_str());
        if (result >= 0) result = sd_bus_message_open_container(message, 'v', property.value.signature().c_str());
        if (result >= 0) result = property.value.appendTo(message);
        if (result >= 0) result = sd_bus_message_close_container(message);
        if (result >= 0) result = sd_bus_message_close_container(message);
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

int ObjectTree::appendInterfaces(sd_bus_message* message, const Object& object) {
    int result = sd_bus_message_open_container(message, 'a', "{sa{sv}}");
    for (const auto& interface : object) {
        if (result >= 0) result = sd_bus_message_open_container(message, 'e', "sa{sv}");
        if (result >= 0) result = sd_bus_message_append_basic(message, 's', interface.name.c_str());
        if (result >= 0) result = appendProperties(message, interface);
        if (result >= 0) result = sd_bus_message_close_container(message);
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

bool ObjectTree::handle(const Call& call) const {
    if (call.path() == "/" && call.is(kObjectManager, "GetManagedObjects", "")) {
        getManagedObjects(call);
    } else if (isPrefix(call.path()) && call.is(kIntrospectable, "Introspect", "")) {
        introspect(call);
    } else if (has(call.path(), kProperties) && call.is(kProperties, "Get", "ss")) {
        get(call);
    } else if (has(call.path(), kProperties) && call.is(kProperties, "GetAll", "s")) {
        getAll(call);
    } else {
        return false;
    }
    return true;
}

void ObjectTree::getManagedObjects(const Call& call) const {
    call.replyWith([this](sd_bus_message* message) {
        int result = sd_bus_message_open_container(message, 'a', "{oa{sa{sv}}}");
        for (const auto& [path, object] : objects_) {
            if (result >= 0) result = sd_bus_message_open_container(message, 'e', "oa{sa{sv}}");
            if (result >= 0) result = sd_bus_message_append_basic(message, 'o', path.c_str());
            if (result >= 0) result = appendInterfaces(message, object);
            if (result >= 0) result = sd_bus_message_close_container(message);
        }
        return result < 0 ? result : sd_bus_message_close_container(message);
    });
}

void ObjectTree::get(const Call& call) const {
    const std::string& interface = call.arguments()[0].text();
    const std::string& property = call.arguments()[1].text();
    const Interface* holder = find(call.path(), interface);
    if (!holder) return call.fail(kInvalidArgs, fmt::format("No such interface '{}'", interface));
    const auto found = findProperty(*holder, property);
    if (found == holder->properties.end())
        return call.fail(kInvalidArgs, fmt::format("No such property '{}'", property));
    if (!found->readError.empty()) return call.fail(found->readError, Errors::kUnreadable.text);
    call.reply({Value::variant(found->value)});
}

void ObjectTree::getAll(const Call& call) const {
    const std::string& interface = call.arguments()[0].text();
    const Interface* holder = find(call.path(), interface);
    if (!holder) return call.fail(kInvalidArgs, fmt::format("No such interface '{}'", interface));
    for (const auto& property : holder->properties) {
        if (!property.readError.empty()) return call.fail(property.readError, Errors::kUnreadable.text);
    }
    call.replyWith([holder](sd_bus_message* message) { return appendProperties(message, *holder); });
}

std::string ObjectTree::introspection(const Interface& interface) const {
    std::string text = fmt::format("<interface name=\"{}\">", interface.name);
    const auto methods = methods_.find(interface.name);
    if (methods != methods_.end()) {
        for (const auto& method : methods->second) {
            text += fmt::format("<method name=\"{}\">", method.member);
            for (const auto& type : completeTypes(method.in))
                text += fmt::format("<arg type=\"{}\" direction=\"in\"/>", type);
            for (const auto& type : completeTypes(method.out))
                text += fmt::format("<arg type=\"{}\" direction=\"out\"/>", type);
            text += "</method>";
        }
    }
    for (const auto& property : interface.properties) {
        text += fmt::format("<property name=\"{}\" type=\"{}\" access=\"read\"/>", property.name,
                            property.value.signature());
    }
    return text + "</interface>";
}

/// Lists what lies below and the interfaces with their properties; that is what tools like busctl walk the tree with.
void ObjectTree::introspect(const Call& call) const {
    const std::string path = call.path();
    std::string text =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
        "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node>";
    // The root is an object, too, but none that the ObjectManager lists.
    if (path == "/") text += introspection({kIntrospectable, {}}) + introspection({kObjectManager, {}});
    const auto object = objects_.find(path);
    if (object != objects_.end()) {
        for (const auto& interface : object->second) text += introspection(interface);
    }
    std::set<std::string> children;
    const std::string below = path == "/" ? path : path + "/";
    for (auto next = objects_.lower_bound(below); next != objects_.end() && next->first.starts_with(below); ++next) {
        const std::string rest = next->first.substr(below.size());
        if (!rest.empty()) children.insert(rest.substr(0, rest.find('/')));
    }
    for (const auto& child : children) text += fmt::format("<node name=\"{}\"/>", child);
    call.reply({Value::string(text + "</node>")});
}

}  // namespace Simulator
