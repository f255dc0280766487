#ifndef SIMULATOR_VALUE_H
#define SIMULATOR_VALUE_H

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Simulator {

struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
/// One reference to a bus message, given back when it goes.
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

/// One D-Bus value of any type but file descriptors: a single complete type and its content.
///
/// The simulator keeps every property as a Value, so that a property may hold what bluetoothd would never put there.
class Value {
public:
    using List = std::vector<Value>;

    /// Integers and booleans are kept as 64 bits, sign-extended; 's', 'o' and 'g' as text; containers as their elements
    /// (a variant and a dictionary entry have one and two).
    using Content = std::variant<std::uint64_t, double, std::string, List>;

    Value(std::string signature, Content content) : signature_(std::move(signature)), content_(std::move(content)) {}

    static Value boolean(bool value) { return {"b", std::uint64_t{value}}; }
    static Value int16(std::int16_t value) { return {"n", static_cast<std::uint64_t>(std::int64_t{value})}; }
    static Value uint16(std::uint16_t value) { return {"q", std::uint64_t{value}}; }
    static Value uint32(std::uint32_t value) { return {"u", std::uint64_t{value}}; }
    static Value uint64(std::uint64_t value) { return {"t", value}; }
    static Value string(std::string value) { return {"s", std::move(value)}; }
    static Value objectPath(std::string value) { return {"o", std::move(value)}; }
    static Value strings(const std::vector<std::string>& values);
    static Value variant(Value inner);
    static Value structure(List members);
    /// An array whose elements all have `elementSignature`, which names the type also when there are none.
    static Value array(const std::string& elementSignature, List elements);
    static Value entry(Value key, Value value);

    const std::string& signature() const { return signature_; }
    char type() const { return signature_.front(); }

    bool isText() const { return std::holds_alternative<std::string>(content_); }
    /// The text of a string, object path or signature; empty for every other type.
    const std::string& text() const;
    /// The integer or boolean; 0 for every other type.
    std::uint64_t number() const;
    double real() const;
    bool isTrue() const { return number() != 0; }
    /// The elements of a container; empty for every other type.
    const List& elements() const;
    /// What a variant holds; the value itself when it is no variant.
    const Value& inner() const { return type() == 'v' ? elements().front() : *this; }

    bool operator==(const Value& other) const { return signature_ == other.signature_ && content_ == other.content_; }

    /// Takes the next complete value out of the message. None at the end, on a message that cannot be read, and for
    /// file descriptors.
    static std::optional<Value> readFrom(sd_bus_message* message);
    /// Takes all that is left of the message's arguments.
    static std::optional<List> readAll(sd_bus_message* message);

    /// Appends the value. Negative errno when the message is in no state to take it, or when the value cannot travel
    /// (a text that is not UTF-8, a malformed object path).
    int appendTo(sd_bus_message* message) const;

private:
    int appendContainer(sd_bus_message* message) const;

    std::string signature_;
    Content content_;
};

/// Named values in their order: the properties of an interface.
using NamedValues = std::vector<std::pair<std::string, Value>>;

/// The value of that name, null when there is none.
const Value* find(const NamedValues& values, const std::string& name);
/// Replaces the values of the same names, and adds the others at the end.
void put(NamedValues& values, const NamedValues& others);

/// The a{sv} of the named values.
Value dictionary(const NamedValues& values);
/// The entries of an a{sv}; entries of other dictionaries are left out.
NamedValues namedValues(const Value& dictionary);

}  // namespace Simulator

#endif
