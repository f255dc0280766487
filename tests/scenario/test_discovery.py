"""What the service makes of BlueZ's object manager: its first answer, its signals, and what is wrong with them."""

import pytest

from harness.bluez import ADAPTER, DEVICE, OBJECTS, Reply, device_path
from harness.dbus import BusConnection, signal

ADDRESS = "00:11:22:33:44:55"
PATH = device_path(ADDRESS)
HCI0 = "/org/bluez/hci0"
NONE = ["master", "service"]
NODE = f"devices/{ADDRESS}/device"


def adapter_values(address="00:1A:7D:DA:71:13"):
    return {"Address": ("s", address), "Name": ("s", "n"), "Discovering": ("b", False)}


def device_values(address=ADDRESS):
    return {"Address": ("s", address), "Alias": ("s", "a"), "Paired": ("b", False), "Class": ("u", 0)}


# The first answer


@pytest.mark.parametrize("signature, body", [
    ("", ()),
    ("s", ("nothing of the kind",)),
    ("as", (["a", "b"],)),
    ("a{sa{sa{sv}}}", ({PATH: {DEVICE: device_values()}},)),
    ("a{oas}", ({PATH: [DEVICE]},)),
    ("a{os}", ({PATH: DEVICE},)),
    ("a{oa{ss}}", ({PATH: {DEVICE: "x"}},)),
    ("a{oa{oa{sv}}}", ({PATH: {"/org": device_values()}},)),
    ("a{oa{sas}}", ({PATH: {DEVICE: ["Address"]}},)),
    ("a{oa{sa{ss}}}", ({PATH: {DEVICE: {"Address": ADDRESS}}},)),
    ("a{oa{sa{uv}}}", ({PATH: {DEVICE: {1: ("s", ADDRESS)}}},)),
    ("a(oa{sa{sv}})", ([(PATH, {DEVICE: device_values()})],)),
    ("v", (("s", "x"),)),
    ("a{oa{sa{sv}}}", ({},)),
    ("a{oa{sa{sv}}}", ({PATH: {}},)),
    ("a{oa{sa{sv}}}", ({PATH: {DEVICE: {}}},)),
], ids=lambda value: value if isinstance(value, str) else "")
def test_an_answer_of_another_form_holds_nothing_and_is_no_failure(bluez, start, signature, body):
    bluez.answer("GetManagedObjects", Reply(signature, *body))
    service = start()
    assert service.nodes() == NONE
    assert all(line.level == 1 for line in service.logged())


def test_malformed_entries_do_not_hide_the_good_ones(bluez, start):
    bluez.objects.update({
        "/a": {"org.bluez.Other": {"Address": ("s", "A")}},
        "/b": {DEVICE: {"Address": ("u", 5)}},
        PATH: {DEVICE: device_values()},
        "/c": {DEVICE: {"address": ("s", "C")}},
        HCI0: {ADAPTER: adapter_values()},
        "/d": {},
    })
    assert start().nodes() == ["adapters/00:1A:7D:DA:71:13/adapter", NODE, *NONE]


@pytest.mark.parametrize("value", [None, ("u", 5), ("o", "/a"), ("as", [ADDRESS]), ("v", ("s", ADDRESS))],
                         ids=["absent", "number", "path", "list", "variant"])
def test_a_device_without_a_readable_address_is_not_added(bluez, start, value):
    bluez.set_device(Address=value)
    service = start()
    assert service.nodes() == NONE
    assert not bluez.calls_of("Get"), "nothing is asked of it"


def test_an_adapter_is_added_whatever_its_properties_look_like(bluez, start):
    """Its address is read by a call of its own."""
    bluez.objects[HCI0] = {ADAPTER: adapter_values()}
    bluez.answer("GetManagedObjects", Reply("a{oa{sa{sv}}}", {HCI0: {ADAPTER: {}}}))
    assert start().nodes() == ["adapters/00:1A:7D:DA:71:13/adapter", *NONE]


@pytest.mark.parametrize("order, expected", [
    ([ADAPTER, DEVICE], ["adapters/00:1A:7D:DA:71:13/adapter", *NONE]),
    ([DEVICE, ADAPTER], [NODE, *NONE]),
], ids=["adapter first", "device first"])
@pytest.mark.parametrize("late", [False, True], ids=["at the start", "later"])
def test_the_first_of_both_interfaces_decides(bluez, start, order, expected, late):
    values = {ADAPTER: adapter_values(), DEVICE: device_values()}
    both = {name: values[name] for name in order}
    if late:
        service = start()
        bluez.objects[HCI0] = both
        bluez.announce(HCI0)
        bluez.settle()
    else:
        bluez.objects[HCI0] = both
        service = start()
    assert service.nodes() == expected


@pytest.mark.parametrize("late", [False, True], ids=["at the start", "later"])
def test_a_device_interface_without_an_address_lets_the_adapter_behind_it_count(bluez, start, late):
    both = {"org.bluez.Other": {}, DEVICE: {}, ADAPTER: adapter_values()}
    service = start() if late else None
    bluez.objects[HCI0] = both
    if late:
        bluez.announce(HCI0)
        bluez.settle()
    else:
        service = start()
    assert service.nodes() == ["adapters/00:1A:7D:DA:71:13/adapter", *NONE]


def test_the_address_is_found_among_other_properties(bluez, start):
    bluez.objects[PATH] = {DEVICE: {"RSSI": ("n", -60), "ManufacturerData": ("a{qv}", {76: ("ay", b"\x01")}),
                                    "AddressType": ("s", "public"), **device_values()}}
    assert NODE in start().nodes()


def test_a_thousand_devices(new_bus, new_bluez, launch):
    """On a bus that allows a rule for each of them."""
    bus = new_bus(max_match_rules_per_connection=2000)
    bluez = new_bluez(on=bus)
    for number in range(1000):
        bluez.set_device(f"00:11:22:33:{number >> 8:02X}:{number & 255:02X}")
    service = launch(address=bus.address).wait_ready(limit=30)
    assert len(service.nodes()) == 1002
    with service.device("00:11:22:33:03:E7") as client:
        assert client.value("NAME") == "device E7"
    assert service.stop() == 0


def test_more_devices_than_the_bus_allows_rules(bluez, start):
    """The system bus allows 512 rules of a connection: the devices past it are published without a watch."""
    service = start()
    for number in range(600):
        bluez.set_device(f"00:11:22:33:{number >> 8:02X}:{number & 255:02X}", announce=True)
    bluez.settle(limit=30)
    assert len(service.nodes()) == 602
    assert len([line for line in service.logged() if line.level == 3]) == 600 - 511
    with service.device("00:11:22:33:02:57") as client:
        assert client.value("NAME") == "device 57"
    assert service.stop() == 0


# Signals


def test_a_device_appears_and_disappears(bluez, start):
    service = start()
    bluez.set_device(announce=True)
    service.wait_log(f"Device added: {PATH}", level=1)
    bluez.settle()
    assert service.nodes() == [NODE, *NONE]
    bluez.remove(PATH)
    service.wait_log(f"Device removed: {PATH}", level=1)
    bluez.settle()
    assert service.nodes() == NONE


@pytest.mark.parametrize("signature, body", [
    ("", ()),
    ("s", (PATH,)),
    ("sa{sa{sv}}", (PATH, {DEVICE: device_values()})),
    ("o", (PATH,)),
    ("os", (PATH, DEVICE)),
    ("oas", (PATH, [DEVICE])),
    ("oa{sv}", (PATH, {DEVICE: ("s", ADDRESS)})),
    ("oa{oa{sv}}", (PATH, {"/x": device_values()})),
    ("oa{sa{ss}}", (PATH, {DEVICE: {"Address": ADDRESS}})),
    ("oa{sa{sv}}", (PATH, {})),
    ("ou", (PATH, 7)),
])
@pytest.mark.parametrize("member", ["InterfacesAdded", "InterfacesRemoved"])
def test_a_malformed_signal_changes_nothing(bluez, start, member, signature, body):
    bluez.set_device("00:11:22:33:44:66")
    service = start()
    before = (service.nodes(), service.texts())
    if member == "InterfacesRemoved" and signature == "oas":
        body = (PATH, ["org.bluez.Other", "Device1", ""])
    bluez.signal("/", OBJECTS, member, signature, *body)
    bluez.settle()
    assert (service.nodes(), service.texts()) == before


def test_an_unknown_member_changes_nothing(bluez, start):
    service = start()
    bluez.signal("/", OBJECTS, "InterfacesChanged", "oa{sa{sv}}", PATH, {DEVICE: device_values()})
    bluez.settle()
    assert service.nodes() == NONE


def test_signals_on_other_paths_change_nothing(bluez, start):
    service = start()
    bluez.signal("/org/bluez", OBJECTS, "InterfacesAdded", "oa{sa{sv}}", PATH, {DEVICE: device_values()})
    bluez.settle()
    assert service.nodes() == NONE


def test_the_interfaces_that_went_are_looked_through_until_one_is_ours(bluez, start):
    path = bluez.set_device()
    service = start()
    bluez.interfaces_removed(path, ["org.freedesktop.DBus.Properties", "org.bluez.MediaControl1", DEVICE])
    service.wait_log(f"Device removed: {path}", level=1)


def test_the_first_of_both_interfaces_that_went_decides(bluez, start):
    device = bluez.set_device()
    adapter = bluez.set_adapter()
    service = start()
    bluez.interfaces_removed(device, [ADAPTER, DEVICE])
    bluez.interfaces_removed(adapter, [DEVICE, ADAPTER])
    bluez.settle()
    assert service.nodes() == ["adapters/00:1A:7D:DA:71:13/adapter", NODE, *NONE]


def test_the_sender_of_a_signal_does_not_matter(bus, bluez, start):
    path = bluez.set_device()
    service = start()
    somebody = BusConnection(bus)
    somebody.send(signal("/", OBJECTS, "InterfacesRemoved", "oas", (path, [DEVICE])))
    service.wait_log(f"Device removed: {path}", level=1)
    somebody.close()


def test_a_signal_sent_to_the_service_alone_is_taken_too(bluez, start):
    service = start()
    bluez.set_device()
    bluez._connection.send(signal("/", OBJECTS, "InterfacesAdded", "oa{sa{sv}}", (PATH, {DEVICE: device_values()}),
                                  destination=bluez.agent[0]))
    service.wait_log(f"Device added: {PATH}", level=1)


def test_signals_are_taken_in_order(bluez, start):
    service = start()
    path = bluez.set_device()
    for _ in range(200):
        bluez.announce(path)
        bluez.interfaces_removed(path, [DEVICE])
    bluez.announce(path)
    service.wait_log(f"Device added: {path}", count=201, limit=20)
    bluez.settle()
    assert service.texts().count(f"Device removed: {path}") == 200
    assert service.nodes() == [NODE, *NONE]


# The registry of devices


def test_a_second_path_with_the_address_of_a_device_is_ignored_silently(bluez, start):
    bluez.set_device(Alias=("s", "first"))
    service = start()
    lines = service.mark()
    asked = len(bluez.calls_of("Get"))
    bluez.set_device(adapter="hci1", announce=True, Alias=("s", "second"))
    bluez.settle()
    assert service.mark() == lines and len(bluez.calls_of("Get")) == asked
    with service.device() as client:
        assert client.value("NAME") == "first"


def test_a_device_announced_twice_is_one(bluez, start):
    path = bluez.set_device()
    service = start()
    bluez.announce(path)
    bluez.settle()
    assert service.texts().count(f"Device added: {path}") == 1


def test_addresses_are_compared_exactly(bluez, start):
    bluez.set_device("aa:bb:cc:dd:ee:ff")
    bluez.set_device("AA:BB:CC:DD:EE:FF")
    assert start().nodes() == ["devices/AA:BB:CC:DD:EE:FF/device", "devices/aa:bb:cc:dd:ee:ff/device", *NONE]


def test_removing_an_unknown_device_is_silent(bluez, start):
    bluez.set_device()
    service = start()
    lines = service.mark()
    bluez.interfaces_removed("/org/bluez/hci0/dev_FF", [DEVICE])
    bluez.settle()
    assert service.mark() == lines
    assert NODE in service.nodes()


def test_a_device_that_comes_again_is_published_again(bluez, start):
    service = start()
    for round_number in range(1, 4):
        path = bluez.set_device(announce=True, Alias=("s", f"round {round_number}"))
        service.wait_log(f"Device added: {path}", count=round_number)
        with service.device() as client:
            assert client.value("NAME") == f"round {round_number}"
        bluez.remove(path)
        service.wait_log(f"Device removed: {path}", count=round_number)


def test_of_two_paths_with_one_checksum_the_second_is_logged_and_not_kept(bluez, start):
    """The two paths have the same CRC-32; the second device is announced in the log and withdrawn at once."""
    first = bluez.set_device("00:00:00:00:00:01", path="/org/bluez/hci0/dev_8AEEDA427A83D5")
    service = start()
    second = bluez.set_device("00:00:00:00:00:02", path="/org/bluez/hci0/dev_D902F3C793F3DA", announce=True)
    service.wait_log(f"Device added: {second}", level=1)
    bluez.settle()
    assert service.nodes() == ["devices/00:00:00:00:00:01/device", *NONE]
    with service.device("00:00:00:00:00:01") as client:
        assert client.value("NAME") == "device 01"
    # Both paths have one id: the removal of the second takes the first.
    bluez.remove(second)
    service.wait_log(f"Device removed: {second}", level=1)
    bluez.settle()
    assert service.nodes() == NONE
    bluez.remove(first)
    bluez.settle()
    assert service.running
