"""One device: what is read of it, what its node answers, how its name is followed."""

import pytest

from harness.bluez import DEVICE, PROPERTIES, device_path
from harness.dbus import method_call
from harness.varlink import FAILURE, UNKNOWN_ACTION, action, integer, listing, nothing, string

FIRST, SECOND = "00:11:22:33:44:01", "00:11:22:33:44:02"


# What is read


@pytest.mark.short
def test_description_and_attributes(bluez, start):
    bluez.set_device("00:11:22:33:44:55", Alias=("s", "Keyboard"), Class=("u", 0x5A020C))
    with start().device() as client:
        assert client.describe() == {
            "node": "bluetooth/devices/00:11:22:33:44:55/device", "server": "LinuxBTDevices",
            "attributes": ["ADDRESS", "NAME", "STATUS", "MAJOR_SERVICE_CLASSES", "MAJOR_DEVICE_CLASS",
                           "MINOR_DEVICE_CLASS", "PROFILES", "ACTIVE_PROFILES"],
            "actions": ["CONNECT", "WAIT_CONNECTED", "ACTIVATE_PROFILE", "DISCONNECT"]}
        assert client.get("ADDRESS") == [string("ADDRESS", "00:11:22:33:44:55")]
        assert client.get("NAME") == [string("NAME", "Keyboard")]
        assert client.get("STATUS") == [integer("STATUS", 1)]
        assert client.get("MAJOR_SERVICE_CLASSES") == [integer("MAJOR_SERVICE_CLASSES", 0x2D0)]
        assert client.get("MAJOR_DEVICE_CLASS") == [integer("MAJOR_DEVICE_CLASS", 2)]
        assert client.get("MINOR_DEVICE_CLASS") == [integer("MINOR_DEVICE_CLASS", 3)]
        assert client.get("PROFILES") == [listing("PROFILES")]
        assert client.get("ACTIVE_PROFILES") == [listing("ACTIVE_PROFILES")]


@pytest.mark.parametrize("value, services, major, minor", [
    (0xFFFFFF, 1023, 31, 63), (0x800000, 0, 0, 0), (0xFFFFFFFF, 1023, 31, 63), (0x3, 0, 0, 0), (0x7FE000, 1023, 0, 0),
    (0x1F00, 0, 31, 0), (0xFC, 0, 0, 63), (0, 0, 0, 0),
])
def test_fields_of_the_class(bluez, start, value, services, major, minor):
    bluez.set_device(Class=("u", value))
    with start().device() as client:
        assert [client.value(name) for name in ("MAJOR_SERVICE_CLASSES", "MAJOR_DEVICE_CLASS", "MINOR_DEVICE_CLASS")] \
            == [services, major, minor]


@pytest.mark.parametrize("attribute", ["address", "Name", "STATUS ", "", "PINCODE", "RESULT", "PROFILE", "CONNECT"])
def test_any_other_attribute_gives_no_values(bluez, start, attribute):
    bluez.set_device()
    with start().device() as client:
        assert client.get(attribute) == []


def test_nothing_can_be_written(bluez, start):
    bluez.set_device(Alias=("s", "mine"))
    with start().device() as client:
        assert client.call("com.kelvo.node.Set", {"values": [string("NAME", "x"), integer("STATUS", 3)]}) == {
            "values": []}
        assert (client.value("NAME"), client.value("STATUS")) == ("mine", 1)


@pytest.mark.parametrize("value", [None, ("u", 1), ("as", ["x"])], ids=["absent", "number", "list"])
def test_a_device_without_a_readable_alias_is_generic(bluez, start, value):
    path = bluez.set_device(Alias=value)
    service = start()
    service.wait_log(f"Could not obtain alias of device {path}", level=3)
    with service.device() as client:
        assert client.value("NAME") == "GenericDevice"


@pytest.mark.parametrize("value", [None, ("s", "true"), ("u", 1)], ids=["absent", "text", "number"])
def test_an_unreadable_pairing_status_counts_as_unpaired(bluez, start, value):
    path = bluez.set_device(Paired=value)
    service = start()
    service.wait_log(f"Could not determine pairing status, assume unpaired for {path}", level=3)
    with service.device() as client:
        assert client.value("STATUS") == 1


@pytest.mark.parametrize("value", [None, ("s", "0x240404"), ("i", 5), ("q", 5), ("t", 5)],
                         ids=["absent", "text", "signed", "16 bits", "64 bits"])
def test_an_unreadable_class_is_zero(bluez, start, value):
    path = bluez.set_device(Class=value)
    service = start()
    service.wait_log(f"Could not read BT classes for device {path}", level=3)
    with service.device() as client:
        assert client.value("MAJOR_DEVICE_CLASS") == 0


def test_the_three_properties_fail_each_for_itself(bluez, start):
    path = bluez.set_device(Alias=None, Paired=("b", True), Class=None)
    service = start()
    service.expect_log((3, f"Could not obtain alias of device {path}"),
                       (3, f"Could not read BT classes for device {path}"), (1, f"Device added: {path}"))
    with service.device() as client:
        assert client.value("STATUS") == 3


def test_a_paired_device_is_paired_and_its_profiles_are_not_read(bluez, start):
    bluez.set_device(Paired=("b", True), UUIDs=("as", ["0000110a-0000-1000-8000-00805f9b34fb"]))
    with start().device() as client:
        assert client.value("STATUS") == 3
        assert client.get("PROFILES") == [listing("PROFILES")]
    assert not [call for call in bluez.calls_of("Get") if call.args[1] == "UUIDs"]


def test_names_that_are_not_plain(bluez, start):
    names = ["", "line\nbreak", 'quote " and \\ back', "Füße 蓝牙 \N{GRINNING FACE}", "\x01\x7f", "x" * 10000]
    for number, name in enumerate(names):
        bluez.set_device(f"00:11:22:33:44:0{number}", Alias=("s", name))
    service = start()
    for number, name in enumerate(names):
        with service.device(f"00:11:22:33:44:0{number}") as client:
            assert client.value("NAME") == name


# Actions that are none


@pytest.mark.parametrize("name", ["connect", "PAIR", "STOP", "INQUIRY_START", "PINCODE", ""])
def test_an_unknown_action_is_a_number_here(bluez, start, name):
    bluez.set_device()
    with start().device() as client:
        assert client.execute(nothing(name)) == [integer(name, UNKNOWN_ACTION)]


def test_an_action_without_a_name_is_an_unknown_one(bluez, start):
    bluez.set_device()
    with start().device() as client:
        assert client.execute({"kind": "none"}) == [{"kind": "integer", "integer": UNKNOWN_ACTION}]


def test_an_unknown_action_among_others(bluez, start):
    bluez.set_device(Paired=("b", True))
    with start().device() as client:
        assert client.execute(action("WAIT_CONNECTED"), action("what"), action("DISCONNECT")) == [
            integer("WAIT_CONNECTED", 0), integer("what", UNKNOWN_ACTION), integer("DISCONNECT", FAILURE)]
        assert client.execute() == []


# The watch on properties


def changed(bluez, path, **properties):
    bluez.properties_changed(path, properties)


@pytest.mark.short
def test_a_changed_alias_is_the_new_name_and_watches_are_told(bluez, start):
    path = bluez.set_device()
    service = start()
    with service.device() as client, service.device() as watch:
        watch.watch()
        changed(bluez, path, Alias=("s", "new name"))
        assert watch.change() == 0
        assert client.value("NAME") == "new name"


def test_every_change_is_told_and_none_is_merged(bluez, start):
    path = bluez.set_device()
    service = start()
    with service.device() as watch:
        watch.watch()
        for number in range(50):
            changed(bluez, path, Alias=("s", f"name {number}"))
        for _ in range(50):
            assert watch.change() == 0
        with service.device() as client:
            assert client.value("NAME") == "name 49"


def test_an_alias_that_is_announced_unchanged_is_told_too(bluez, start):
    path = bluez.set_device(Alias=("s", "same"))
    service = start()
    with service.device() as watch:
        watch.watch()
        changed(bluez, path, Alias=("s", "same"))
        assert watch.change() == 0


@pytest.mark.parametrize("interface, properties", [
    (DEVICE, {"Paired": ("b", True)}),
    (DEVICE, {"Class": ("u", 7), "UUIDs": ("as", ["0000110a-0000-1000-8000-00805f9b34fb"]), "RSSI": ("n", -5)}),
    (DEVICE, {"Alias": ("u", 5)}),
    (DEVICE, {"Alias": ("as", ["x"])}),
    (DEVICE, {"alias": ("s", "x"), "Name": ("s", "x")}),
    (DEVICE, {}),
    ("org.bluez.Adapter1", {"Alias": ("s", "x")}),
    ("org.bluez.Battery1", {"Alias": ("s", "x")}),
], ids=["paired", "others", "number", "list", "other names", "none", "adapter", "battery"])
def test_other_changes_change_nothing(bluez, start, interface, properties):
    path = bluez.set_device(Alias=("s", "before"))
    service = start()
    with service.device() as client, service.device() as watch:
        watch.watch()
        bluez.properties_changed(path, properties, interface=interface)
        bluez.settle()
        assert (client.value("NAME"), client.value("STATUS")) == ("before", 1)
        changed(bluez, path, Alias=("s", "after"))
        assert watch.change() == 0
        bluez.settle()
        # The next the watch hears of is its end: there was one change only.
        bluez.remove(path)
        assert watch.receive()["error"] == "com.kelvo.node.Withdrawn"


@pytest.mark.parametrize("signature, body", [
    ("", ()), ("u", (5,)), ("s", (DEVICE,)), ("ss", (DEVICE, "Alias")), ("sa{uv}as", (DEVICE, {1: ("s", "x")}, [])),
    ("sas", (DEVICE, ["Alias"])), ("sa{ss}", (DEVICE, {"Alias": "x"})), ("oa{sv}", ("/x", {"Alias": ("s", "x")})),
    ("sv", (DEVICE, ("s", "x"))), ("sa(sv)", (DEVICE, [("Alias", ("s", "x"))])),
])
def test_malformed_changes_change_nothing(bluez, start, signature, body):
    path = bluez.set_device(Alias=("s", "before"))
    service = start()
    bluez.signal(path, PROPERTIES, "PropertiesChanged", signature, *body)
    bluez.settle()
    with service.device() as client:
        assert client.value("NAME") == "before"


def test_the_alias_is_found_behind_other_properties(bluez, start):
    path = bluez.set_device()
    service = start()
    bluez.properties_changed(path, {"RSSI": ("n", -40), "Alias": ("s", "found"), "Class": ("u", 1)})
    bluez.settle()
    with service.device() as client:
        assert client.value("NAME") == "found"


def test_the_member_of_the_message_does_not_matter(bluez, start):
    path = bluez.set_device()
    service = start()
    bluez.signal(path, PROPERTIES, "AnythingElse", "sa{sv}", DEVICE, {"Alias": ("s", "taken all the same")})
    bluez.settle()
    with service.device() as client:
        assert client.value("NAME") == "taken all the same"


def test_a_property_signal_goes_to_the_device_that_was_added_first(bluez, start):
    first = bluez.set_device(FIRST, Alias=("s", "first"))
    second = bluez.set_device(SECOND, Alias=("s", "second"))
    service = start()
    with service.device(FIRST) as one, service.device(SECOND) as two, service.device(FIRST) as watch:
        watch.watch()
        changed(bluez, second, Alias=("s", "meant for the second"))
        assert watch.change() == 0
        assert (one.value("NAME"), two.value("NAME")) == ("meant for the second", "second")
        bluez.remove(first)
        service.wait_log(f"Device removed: {first}")
        changed(bluez, second, Alias=("s", "now it is mine"))
        bluez.settle()
        assert two.value("NAME") == "now it is mine"
        # The first comes again and is the last now.
        bluez.set_device(FIRST, announce=True, Alias=("s", "first"))
        service.wait_log(f"Device added: {first}", count=2)
        changed(bluez, first, Alias=("s", "meant for the first"))
        bluez.settle()
        assert two.value("NAME") == "meant for the first"


def test_signals_of_devices_without_a_watch_reach_nobody(bluez, start):
    """A rule per device: what other objects signal does not reach the connection at all."""
    bluez.set_device(Alias=("s", "before"))
    service = start()
    changed(bluez, device_path("77:77:77:77:77:77"), Alias=("s", "stray"))
    bluez.settle()
    with service.device() as client:
        assert client.value("NAME") == "before"


def test_a_property_call_to_the_agent_is_swallowed_by_a_device(bluez, start):
    """Every message of that interface is handled by the first device, calls included: nobody answers."""
    bluez.set_device(Alias=("s", "before"))
    service = start()
    lines = service.mark()
    name, agent_path = bluez.agent
    reply = bluez._connection.begin(name, agent_path, PROPERTIES, "Get", "ss", (DEVICE, "Alias"))
    bluez._connection.send(method_call(name, agent_path, PROPERTIES, "Set", "sa{sv}",
                                       (DEVICE, {"Alias": ("s", "by a call")})))
    bluez.settle()
    with pytest.raises(AssertionError):
        reply(limit=0)
    assert service.mark() == lines
    with service.device() as client:
        assert client.value("NAME") == "by a call"


def test_the_rule_of_a_device_is_removed_with_it(bluez, monitor, start):
    path = bluez.set_device()
    service = start()
    bluez.remove(path)
    service.wait_log(f"Device removed: {path}")
    rule = f"type='signal', interface='org.freedesktop.DBus.Properties', path='{path}'"
    monitor.wait(lambda entry: entry.member == "RemoveMatch" and entry.args == (rule,), f"RemoveMatch of {rule}")
    bluez.settle()
    assert all(line.level == 1 for line in service.logged())
    members = [entry.member for entry in monitor.calls(bluez.agent[0]) if entry.args == (rule,)]
    assert members == ["AddMatch", "RemoveMatch"]


def test_devices_come_and_go_while_their_names_change(bluez, start):
    service = start()
    for _ in range(100):
        path = bluez.set_device(announce=True)
        changed(bluez, path, Alias=("s", "x"))
        bluez.remove(path)
        changed(bluez, path, Alias=("s", "y"))
    bluez.settle()
    assert service.texts().count(f"Device removed: {path}") == 100
    # BlueZ may be asked for a property when the object is gone already: level 3. Nothing fails.
    assert {line.level for line in service.logged()} <= {1, 3}


def test_the_name_is_replaced_while_clients_read_it(bluez, start):
    path = bluez.set_device(Alias=("s", "name -1"))
    service = start()
    with service.device() as client:
        for number in range(300):
            changed(bluez, path, Alias=("s", f"name {number}"))
            assert client.value("NAME") in {f"name {recent}" for recent in range(-1, number + 1)}
        bluez.settle()
        assert client.value("NAME") == "name 299"
