#pragma once

#include <dbus/dbus.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Fuzz {

/// A fuzzer's input as a row of decisions; when it is used up, every further one is 0. One thread.
class Choices {
public:
    explicit Choices(std::string_view bytes) : left_(bytes) {}

    bool atEnd() const { return left_.empty(); }
    std::uint8_t byte();
    std::size_t below(std::size_t limit) { return byte() % limit; }
    /// Eight bytes.
    std::uint64_t number();
    /// A word that means something to the service, or any text that D-Bus takes.
    std::string text();
    std::string objectPath();
    /// What is left, cut into two halves; this object keeps the first.
    Choices split();

private:
    std::string_view left_;
};

/// Appends arguments of the signature that the receiver expects, which half of all bodies have, of one that differs
/// from it in one place, or of any. False when libdbus refuses.
bool appendBody(Choices& choices, DBusMessageIter* iter, std::string_view likely);

/// Interfaces and members that the service knows, and others.
const char* interfaceName(Choices& choices);
const char* memberName(Choices& choices);

}  // namespace Fuzz
