#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <dbus/dbus.h>

namespace UnitTest {

struct ObjectPath {
    std::string text;
};

struct BusValue;
/// a{sv}, in the order given.
using BusDict = std::vector<std::pair<std::string, BusValue>>;

/// One D-Bus value of the types that the tests need.
struct BusValue {
    using Any = std::variant<bool, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t, std::int64_t,
                             std::uint64_t, double, std::string, ObjectPath, std::vector<std::string>,
                             std::vector<ObjectPath>, BusDict>;

    template <class T, class = decltype(Any(std::in_place_type<T>, std::declval<T>()))>
    BusValue(T value) : any(std::move(value)) {}
    BusValue(const char* text) : any(std::string(text)) {}

    Any any;
};

/// a{sa{sv}} and a{oa{sa{sv}}}: the interfaces of an object, the objects of an object manager; in the order given.
using BusInterfaces = std::vector<std::pair<std::string, BusDict>>;
using BusObjects = std::vector<std::pair<std::string, BusInterfaces>>;

void append(DBusMessageIter* iter, const BusValue& value);
void appendVariant(DBusMessageIter* iter, const BusValue& value);
void append(DBusMessageIter* iter, const BusInterfaces& interfaces);
void append(DBusMessageIter* iter, const BusObjects& objects);

/// The arguments of a message as text: strings in double quotes, object paths and numbers bare, true and false,
/// [array], {key: value}, (struct), <variant>; separated by ", ".
std::string argumentsAsText(DBusMessage* message);

}  // namespace UnitTest
