#pragma once

#include <string_view>

namespace Services::Bluetooth::Linux {

/// What the agent's object answers to Introspect, fixed byte by byte. Three faults of it are kept on purpose: the
/// second interface has the adapters' name although its method is served under org.bluez.Agent1, the two `arg` elements
/// of DisplayPinCode are not closed, and their types are words instead of D-Bus signatures. Cancel is not listed.
inline constexpr char kIntrospection[] =
    R"(<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN")"
    R"("http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">)"
    R"(<node>)"
    R"(   <interface name="org.freedesktop.DBus.Introspectable">)"
    R"(      <method name="Introspect">)"
    R"(         <arg name="data" direction="out" type="s"/>)"
    R"(      </method>)"
    R"(   </interface>)"
    R"(   <interface name="org.bluez.Adapter1">)"
    R"(      <method name="DisplayPinCode">)"
    R"(         <arg name="device" direction="in" type="object">)"
    R"(         <arg name="pincode" direction="in" type="string">)"
    R"(      </method>)"
    R"(   </interface>)"
    R"(</node>)";

static_assert(std::string_view(kIntrospection).size() == 546);

}  // namespace Services::Bluetooth::Linux
