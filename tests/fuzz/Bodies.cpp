#include "tests/fuzz/Bodies.h"

#include <array>

namespace Fuzz {

namespace {

constexpr std::array kWords = {"",
                               "Address",
                               "Alias",
                               "Name",
                               "Paired",
                               "Class",
                               "UUIDs",
                               "Discovering",
                               "org.bluez.Device1",
                               "org.bluez.Adapter1",
                               "org.bluez.AgentManager1",
                               "00:11:22:33:44:55",
                               "AA:BB:CC:DD:EE:FF",
                               "0000110b-0000-1000-8000-00805f9b34fb",
                               "0000110e-",
                               "zzzzzzzz-0000",
                               "../../x",
                               "."};
constexpr std::array kPaths = {"/org/bluez/fuzz0", "/org/bluez/fuzz0/dev_00_11_22_33_44_55",
                               "/org/bluez/fuzz0/dev_AA_BB_CC_DD_EE_FF", "/"};
constexpr std::array kInterfaces = {"org.freedesktop.DBus.ObjectManager", "org.freedesktop.DBus.Properties",
                                    "org.bluez.Agent1", "org.freedesktop.DBus.Introspectable", "org.bluez.Device1"};
constexpr std::array kMembers = {"InterfacesAdded", "InterfacesRemoved", "PropertiesChanged", "DisplayPinCode",
                                 "Cancel",          "Introspect",        "RequestPinCode",    "Get"};
constexpr std::array kSignatures = {
    "s",   "o",    "v",     "b",     "u",    "y",  "n",  "q",     "i",         "x",
    "t",   "d",    "g",     "as",    "ao",   "av", "ay", "a{sv}", "a{sa{sv}}", "a{oa{sa{sv}}}",
    "aas", "(sv)", "a(so)", "a{us}", "a{ss}"};
constexpr std::string_view kBasicTypes = "suobvg";
constexpr std::size_t kMostElements = 4;
// libdbus takes 32 arrays and 32 structures in each other, and the variants of a body add up.
constexpr unsigned kDeepest = 8;

bool append(Choices& choices, DBusMessageIter* iter, ::DBusSignatureIter* type, unsigned depth);

bool appendAll(Choices& choices, DBusMessageIter* iter, const char* signature, unsigned depth) {
    if (*signature == '\0') return true;
    ::DBusSignatureIter type;
    ::dbus_signature_iter_init(&type, signature);
    do {
        if (!append(choices, iter, &type, depth)) return false;
    } while (::dbus_signature_iter_next(&type));
    return true;
}

const char* anyType(Choices& choices) {
    return kSignatures[choices.below(kSignatures.size())];
}

bool appendText(DBusMessageIter* iter, int type, const std::string& text) {
    const char* const bytes = text.c_str();
    return ::dbus_message_iter_append_basic(iter, type, static_cast<const void*>(&bytes));
}

bool appendVariant(Choices& choices, DBusMessageIter* iter, unsigned depth) {
    const char* const held = depth < kDeepest ? anyType(choices) : "u";
    DBusMessageIter inner;
    return ::dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, held, &inner) &&
           appendAll(choices, &inner, held, depth + 1) && ::dbus_message_iter_close_container(iter, &inner);
}

bool appendArray(Choices& choices, DBusMessageIter* iter, ::DBusSignatureIter* type, unsigned depth) {
    ::DBusSignatureIter element;
    ::dbus_signature_iter_recurse(type, &element);
    char* const signature = ::dbus_signature_iter_get_signature(&element);
    DBusMessageIter inner;
    bool good = ::dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, signature, &inner);
    for (std::size_t left = choices.below(kMostElements); good && left > 0; --left) {
        ::DBusSignatureIter each = element;
        good = append(choices, &inner, &each, depth + 1);
    }
    ::dbus_free(signature);
    return good && ::dbus_message_iter_close_container(iter, &inner);
}

bool appendMembers(Choices& choices, DBusMessageIter* iter, ::DBusSignatureIter* type, int container, unsigned depth) {
    ::DBusSignatureIter member;
    ::dbus_signature_iter_recurse(type, &member);
    DBusMessageIter inner;
    if (!::dbus_message_iter_open_container(iter, container, nullptr, &inner)) return false;
    do {
        if (!append(choices, &inner, &member, depth + 1)) return false;
    } while (::dbus_signature_iter_next(&member));
    return ::dbus_message_iter_close_container(iter, &inner);
}

bool append(Choices& choices, DBusMessageIter* iter, ::DBusSignatureIter* type, unsigned depth) {
    const int code = ::dbus_signature_iter_get_current_type(type);
    switch (code) {
        case DBUS_TYPE_STRING:
            return appendText(iter, code, choices.text());
        case DBUS_TYPE_OBJECT_PATH:
            return appendText(iter, code, choices.objectPath());
        case DBUS_TYPE_SIGNATURE:
            return appendText(iter, code, kSignatures[choices.below(kSignatures.size())]);
        case DBUS_TYPE_VARIANT:
            return appendVariant(choices, iter, depth);
        case DBUS_TYPE_ARRAY:
            return appendArray(choices, iter, type, depth);
        case DBUS_TYPE_STRUCT:
        case DBUS_TYPE_DICT_ENTRY:
            return appendMembers(choices, iter, type, code, depth);
        case DBUS_TYPE_BOOLEAN: {
            const dbus_bool_t value = choices.byte() & 1U;
            return ::dbus_message_iter_append_basic(iter, code, &value);
        }
        default: {
            // Of the eight bytes libdbus takes as many as the type has.
            const std::uint64_t value = choices.number();
            return ::dbus_message_iter_append_basic(iter, code, &value);
        }
    }
}

/// One character that D-Bus takes, of one byte or of two.
void appendCharacter(std::string& text, std::uint8_t from) {
    if (from == 0) from = '?';
    if (from < 0x80) {
        text.push_back(static_cast<char>(from));
    } else {
        text.push_back(static_cast<char>(0xc2U | (from & 1U)));
        text.push_back(static_cast<char>(0x80U | (from >> 1U & 0x3fU)));
    }
}

}  // namespace

std::uint8_t Choices::byte() {
    if (left_.empty()) return 0;
    const auto first = static_cast<std::uint8_t>(left_.front());
    left_.remove_prefix(1);
    return first;
}

std::uint64_t Choices::number() {
    std::uint64_t value = 0;
    for (int count = 0; count < 8; ++count) value = value << 8U | byte();
    return value;
}

std::string Choices::text() {
    const std::size_t word = below(2 * kWords.size());
    if (word < kWords.size()) return kWords[word];
    std::string text;
    for (std::size_t left = byte(); left > 0 && !atEnd(); --left) appendCharacter(text, byte());
    return text;
}

std::string Choices::objectPath() {
    const std::size_t path = below(kPaths.size() + 1);
    if (path < kPaths.size()) return kPaths[path];
    return "/org/bluez/fuzz0/dev_" + std::to_string(byte());
}

Choices Choices::split() {
    const std::size_t half = left_.size() - left_.size() / 2;
    const Choices second(left_.substr(half));
    left_ = left_.substr(0, half);
    return second;
}

bool appendBody(Choices& choices, DBusMessageIter* iter, std::string_view likely) {
    const std::size_t kind = choices.below(4);
    std::string signature(likely);
    if (kind == 2) {
        signature[choices.below(signature.size())] = kBasicTypes[choices.below(kBasicTypes.size())];
        if (!::dbus_signature_validate(signature.c_str(), nullptr)) signature = likely;
    } else if (kind == 3) {
        signature.clear();
        for (std::size_t left = choices.below(kMostElements); left > 0; --left) signature += anyType(choices);
    }
    return appendAll(choices, iter, signature.c_str(), 0);
}

const char* interfaceName(Choices& choices) {
    return kInterfaces[choices.below(kInterfaces.size())];
}

const char* memberName(Choices& choices) {
    return kMembers[choices.below(kMembers.size())];
}

}  // namespace Fuzz
