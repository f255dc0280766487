#include "tests/unit/support/BusValue.h"

#include <cstdlib>

namespace UnitTest {

namespace {

/// Out of memory is the only way these fail.
void must(dbus_bool_t done) {
    if (!done) std::abort();
}

class Container {
public:
    Container(DBusMessageIter* parent, int type, const char* signature) : parent_(parent) {
        must(::dbus_message_iter_open_container(parent_, type, signature, &iter_));
    }
    ~Container() { must(::dbus_message_iter_close_container(parent_, &iter_)); }
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;
    DBusMessageIter* iter() { return &iter_; }

private:
    DBusMessageIter* parent_;
    DBusMessageIter iter_;
};

void appendText(DBusMessageIter* iter, int type, const std::string& text) {
    const char* bytes = text.c_str();
    must(::dbus_message_iter_append_basic(iter, type, static_cast<const void*>(&bytes)));
}

struct Signature {
    const char* operator()(bool) const { return "b"; }
    const char* operator()(std::uint8_t) const { return "y"; }
    const char* operator()(std::int16_t) const { return "n"; }
    const char* operator()(std::uint16_t) const { return "q"; }
    const char* operator()(std::int32_t) const { return "i"; }
    const char* operator()(std::uint32_t) const { return "u"; }
    const char* operator()(std::int64_t) const { return "x"; }
    const char* operator()(std::uint64_t) const { return "t"; }
    const char* operator()(double) const { return "d"; }
    const char* operator()(const std::string&) const { return "s"; }
    const char* operator()(const ObjectPath&) const { return "o"; }
    const char* operator()(const std::vector<std::string>&) const { return "as"; }
    const char* operator()(const std::vector<ObjectPath>&) const { return "ao"; }
    const char* operator()(const BusDict&) const { return "a{sv}"; }
};

struct Append {
    DBusMessageIter* iter;

    void operator()(bool value) const {
        const dbus_bool_t wide = value;
        must(::dbus_message_iter_append_basic(iter, DBUS_TYPE_BOOLEAN, &wide));
    }
    void operator()(const std::string& text) const { appendText(iter, DBUS_TYPE_STRING, text); }
    void operator()(const ObjectPath& path) const { appendText(iter, DBUS_TYPE_OBJECT_PATH, path.text); }
    void operator()(const std::vector<std::string>& texts) const {
        Container array(iter, DBUS_TYPE_ARRAY, "s");
        for (const auto& text : texts) appendText(array.iter(), DBUS_TYPE_STRING, text);
    }
    void operator()(const std::vector<ObjectPath>& paths) const {
        Container array(iter, DBUS_TYPE_ARRAY, "o");
        for (const auto& path : paths) appendText(array.iter(), DBUS_TYPE_OBJECT_PATH, path.text);
    }
    void operator()(const BusDict& dict) const {
        Container array(iter, DBUS_TYPE_ARRAY, "{sv}");
        for (const auto& [key, value] : dict) {
            Container entry(array.iter(), DBUS_TYPE_DICT_ENTRY, nullptr);
            appendText(entry.iter(), DBUS_TYPE_STRING, key);
            appendVariant(entry.iter(), value);
        }
    }
    template <class Number>
    void operator()(Number number) const {
        must(::dbus_message_iter_append_basic(iter, *Signature{}(number), &number));
    }
};

std::string valuesAsText(DBusMessageIter* iter, const char* separator);

template <class T>
T basic(DBusMessageIter* iter) {
    T value{};
    ::dbus_message_iter_get_basic(iter, static_cast<void*>(&value));
    return value;
}

std::string nested(DBusMessageIter* iter, const char* open, const char* separator, const char* close) {
    DBusMessageIter inner;
    ::dbus_message_iter_recurse(iter, &inner);
    return open + valuesAsText(&inner, separator) + close;
}

std::string valueAsText(DBusMessageIter* iter) {
    switch (::dbus_message_iter_get_arg_type(iter)) {
        case DBUS_TYPE_BOOLEAN:
            return basic<dbus_bool_t>(iter) ? "true" : "false";
        case DBUS_TYPE_BYTE:
            return std::to_string(basic<std::uint8_t>(iter));
        case DBUS_TYPE_INT16:
            return std::to_string(basic<std::int16_t>(iter));
        case DBUS_TYPE_UINT16:
            return std::to_string(basic<std::uint16_t>(iter));
        case DBUS_TYPE_INT32:
            return std::to_string(basic<std::int32_t>(iter));
        case DBUS_TYPE_UINT32:
            return std::to_string(basic<std::uint32_t>(iter));
        case DBUS_TYPE_INT64:
            return std::to_string(basic<std::int64_t>(iter));
        case DBUS_TYPE_UINT64:
            return std::to_string(basic<std::uint64_t>(iter));
        case DBUS_TYPE_DOUBLE:
            return std::to_string(basic<double>(iter));
        case DBUS_TYPE_STRING:
            return '"' + std::string(basic<const char*>(iter)) + '"';
        case DBUS_TYPE_OBJECT_PATH:
        case DBUS_TYPE_SIGNATURE:
            return basic<const char*>(iter);
        case DBUS_TYPE_ARRAY:
            return ::dbus_message_iter_get_element_type(iter) == DBUS_TYPE_DICT_ENTRY ? nested(iter, "{", ", ", "}")
                                                                                      : nested(iter, "[", ", ", "]");
        case DBUS_TYPE_DICT_ENTRY:
            return nested(iter, "", ": ", "");
        case DBUS_TYPE_STRUCT:
            return nested(iter, "(", ", ", ")");
        case DBUS_TYPE_VARIANT:
            return nested(iter, "<", ", ", ">");
        default:
            return "?";
    }
}

std::string valuesAsText(DBusMessageIter* iter, const char* separator) {
    std::string text;
    while (::dbus_message_iter_get_arg_type(iter) != DBUS_TYPE_INVALID) {
        if (!text.empty()) text += separator;
        text += valueAsText(iter);
        ::dbus_message_iter_next(iter);
    }
    return text;
}

}  // namespace

void append(DBusMessageIter* iter, const BusValue& value) {
    std::visit(Append{iter}, value.any);
}

void appendVariant(DBusMessageIter* iter, const BusValue& value) {
    Container variant(iter, DBUS_TYPE_VARIANT, std::visit(Signature{}, value.any));
    append(variant.iter(), value);
}

void append(DBusMessageIter* iter, const BusInterfaces& interfaces) {
    Container array(iter, DBUS_TYPE_ARRAY, "{sa{sv}}");
    for (const auto& [name, properties] : interfaces) {
        Container entry(array.iter(), DBUS_TYPE_DICT_ENTRY, nullptr);
        appendText(entry.iter(), DBUS_TYPE_STRING, name);
        append(entry.iter(), BusValue(properties));
    }
}

void append(DBusMessageIter* iter, const BusObjects& objects) {
    Container array(iter, DBUS_TYPE_ARRAY, "{oa{sa{sv}}}");
    for (const auto& [path, interfaces] : objects) {
        Container entry(array.iter(), DBUS_TYPE_DICT_ENTRY, nullptr);
        appendText(entry.iter(), DBUS_TYPE_OBJECT_PATH, path);
        append(entry.iter(), interfaces);
    }
}

std::string argumentsAsText(DBusMessage* message) {
    DBusMessageIter iter;
    if (!::dbus_message_iter_init(message, &iter)) return {};
    return valuesAsText(&iter, ", ");
}

}  // namespace UnitTest
