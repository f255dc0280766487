"""The pairing agent as BlueZ sees it."""

import pytest

from harness.bluez import AGENT, AGENT_PATH, INTROSPECTABLE, PROPERTIES
from harness.dbus import BusConnection, BusError
from harness.varlink import action, integer, string
from harness.waiting import TimedOut

INTROSPECTION = (
    '<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"'
    '"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">'
    '<node>'
    '   <interface name="org.freedesktop.DBus.Introspectable">'
    '      <method name="Introspect">'
    '         <arg name="data" direction="out" type="s"/>'
    '      </method>'
    '   </interface>'
    '   <interface name="org.bluez.Adapter1">'
    '      <method name="DisplayPinCode">'
    '         <arg name="device" direction="in" type="object">'
    '         <arg name="pincode" direction="in" type="string">'
    '      </method>'
    '   </interface>'
    '</node>')


def assert_unanswered(bluez, reply):
    """The agent has handled the call and not answered: it answers in the order of the calls."""
    bluez.settle()
    with pytest.raises(TimedOut):
        reply(limit=0)


@pytest.mark.short
def test_introspection_is_exactly_this_text(bluez, start):
    assert len(INTROSPECTION) == 546
    start()
    reply = bluez.call_agent("Introspect", interface=INTROSPECTABLE)
    assert reply.args == (INTROSPECTION,)


def test_introspection_is_for_everybody(bus, bluez, start):
    start()
    somebody = BusConnection(bus)
    assert somebody.call(bluez.agent[0], AGENT_PATH, INTROSPECTABLE, "Introspect").args == (INTROSPECTION,)
    somebody.close()


def test_cancel_is_not_answered_and_not_logged(bluez, start):
    service = start()
    lines = service.mark()
    cancelled = bluez.begin_agent_call("Cancel")
    assert_unanswered(bluez, cancelled)
    assert service.mark() == lines


@pytest.mark.parametrize("member", ["RequestPinCode", "Release", "displayPinCode", "RequestConfirmation"])
def test_an_unsupported_method_is_logged_and_not_answered(bluez, start, member):
    service = start()
    asked = bluez.begin_agent_call(member)
    service.wait_log(f"Unsupported authentication method {member}", level=3)
    assert_unanswered(bluez, asked)


@pytest.mark.parametrize("interface, member", [("org.bluez.Adapter1", "DisplayPinCode"), (PROPERTIES, "GetAll"),
                                               (INTROSPECTABLE, "introspect"), ("com.example.Any", "Cancel")])
def test_an_unexpected_interface_is_logged_and_not_answered(bluez, start, interface, member):
    service = start()
    asked = bluez.begin_agent_call(member, interface=interface)
    service.wait_log(f"Unexpected interface {interface}", level=3)
    assert_unanswered(bluez, asked)


def test_a_call_without_an_interface_is_survived(bluez, start):
    service = start()
    bluez.begin_agent_call("DisplayPinCode", "os", "/x", "1", interface=None)
    bluez.settle()
    assert service.running


@pytest.mark.parametrize("path", ["/", "/com/kelvo/bluetooth", "/com/kelvo/bluetooth/service/more"])
def test_other_paths_are_nobody(bluez, start, path):
    """The standard answer to a call that nobody takes."""
    start()
    reply = bluez.call_agent("DisplayPinCode", "os", "/x", "1", path=path)
    assert reply.error_name in ("org.freedesktop.DBus.Error.UnknownMethod", "org.freedesktop.DBus.Error.UnknownObject")


@pytest.mark.parametrize("signature, body", [
    ("", ()), ("s", ("/org/bluez/hci0/dev_00_11_22_33_44_55",)), ("ss", ("/org/bluez/hci0/dev_00_11_22_33_44_55", "1")),
    ("o", ("/org/bluez/hci0/dev_00_11_22_33_44_55",)), ("ou", ("/org/bluez/hci0/dev_00_11_22_33_44_55", 1234)),
    ("oas", ("/org/bluez/hci0/dev_00_11_22_33_44_55", ["1"])), ("us", (1, "1")),
])
def test_a_malformed_pincode_is_not_answered_and_has_no_effect(bluez, start, signature, body):
    path = bluez.set_device()
    service = start()
    with service.device() as client, service.device() as other:
        client.send_execute(action("CONNECT"))
        pair = bluez.wait_call("Pair", path=path)
        shown = bluez.begin_agent_call("DisplayPinCode", signature, *body)
        assert_unanswered(bluez, shown)
        assert other.value("STATUS") == 2, "still pairing, no pincode"
        assert all(line.level == 1 for line in service.logged())
        pair.reply()
        assert client.done("CONNECT") == [("RESULT", 0)]


def test_a_pincode_with_further_arguments_is_one(bluez, start):
    path = bluez.set_device()
    with start().device() as client:
        client.send_execute(action("CONNECT"))
        bluez.wait_call("Pair")
        bluez.call_agent("DisplayPinCode", "osuy", path, "4711", 1, 2)
        assert client.done("CONNECT") == [("RESULT", 1), ("PINCODE", "4711")]


def test_a_pincode_for_nobody_is_answered_and_nothing_else(bluez, start):
    path = bluez.set_device()
    service = start()
    lines = service.mark()
    for target in (path, "/org/bluez/hci0/dev_unknown"):
        reply = bluez.display_pincode(target, "123456")
        assert reply.error_name is None and reply.args == ()
    bluez.settle()
    assert service.mark() == lines
    with service.device() as client:
        assert client.value("STATUS") == 1


def test_bluez_is_answered_before_the_device_is_told(bluez, monitor, start):
    """The empty return to a second pincode stands before the cancelling that the pincode causes."""
    path = bluez.set_device()
    with start().device() as client:
        client.send_execute(action("CONNECT"))
        bluez.wait_call("Pair")
        bluez.display_pincode(path, "1111")
        bluez.display_pincode(path, "2222")
        cancel = bluez.wait_call("CancelPairing", path=path)
        monitor.settle()
        shown = [entry for entry in monitor.messages.all() if entry.member == "DisplayPinCode"][-1]
        service_messages = [entry for entry in monitor.messages.all() if entry.sender == bluez.agent[0]]
        answer = next(entry for entry in service_messages
                      if entry.reply_serial == shown.serial and entry.destination == shown.sender)
        cancel_seen = next(entry for entry in service_messages if entry.member == "CancelPairing")
        assert answer.args == () and answer.error_name is None
        assert service_messages.index(answer) < service_messages.index(cancel_seen)
        assert cancel.args == ()


@pytest.mark.parametrize("pincode", ["", "0", "000000", "a b", "Füße", "1" * 3000, "line\nbreak\x1b[31m"])
def test_any_text_is_a_pincode_as_it_stands(bluez, start, pincode):
    path = bluez.set_device()
    service = start()
    with service.device() as client:
        client.send_execute(action("CONNECT"))
        bluez.wait_call("Pair")
        bluez.display_pincode(path, pincode)
        assert client.result()["values"] == [
            {"name": "CONNECT", "kind": "list", "children": [integer("RESULT", 1), string("PINCODE", pincode)]}]


def test_two_pairings_each_get_their_own_pincode(bluez, start):
    first, second = (bluez.set_device(f"00:11:22:33:44:0{number}") for number in (1, 2))
    service = start()
    with service.device("00:11:22:33:44:01") as one, service.device("00:11:22:33:44:02") as two:
        one.send_execute(action("CONNECT"))
        two.send_execute(action("CONNECT"))
        bluez.wait_call("Pair", path=first)
        bluez.wait_call("Pair", path=second)
        bluez.display_pincode(second, "2222")
        assert two.done("CONNECT") == [("RESULT", 1), ("PINCODE", "2222")]
        bluez.display_pincode(first, "1111")
        assert one.done("CONNECT") == [("RESULT", 1), ("PINCODE", "1111")]


def test_the_agent_object_is_gone_with_the_service(bus, bluez, start):
    service = start()
    name = bluez.agent[0]
    assert service.stop() == 0
    somebody = BusConnection(bus)
    with pytest.raises(BusError):
        somebody.call(name, AGENT_PATH, AGENT, "Cancel")
    somebody.close()


def test_the_agent_is_not_made_the_default(bluez, start):
    start()
    assert not bluez.calls_of("RequestDefaultAgent")
