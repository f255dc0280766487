"""One adapter: what is read of it, what its node answers, how its discovery is started and stopped."""

import pathlib
import re
import time

import pytest

from harness.bluez import ADAPTER, FAILED, NOT_READY, Error, Reply, hold
from harness.process import AtRest
from harness.varlink import FAILURE, action, integer, listing, nothing, string
from harness.waiting import stretched

HCI0 = "/org/bluez/hci0"
CLASS_NOT_APPLIED = "Option BT class filter not yet implemented"


def attempt(number, path=HCI0):
    return (1, f"{path}: start/stop discovery, attempt #{number}")


# What is read


@pytest.mark.short
def test_address_and_name_are_those_of_bluez(bluez, start):
    bluez.set_adapter(address="00:1A:7D:DA:71:13", Name=("s", "kitchen"))
    with start().adapter() as client:
        assert client.get("ADDRESS") == [string("ADDRESS", "00:1A:7D:DA:71:13")]
        assert client.get("NAME") == [string("NAME", "kitchen")]


def test_description_of_an_adapter_node(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.describe() == {
            "node": "bluetooth/adapters/00:1A:7D:DA:71:13/adapter", "server": "LinuxBTAdapters",
            "attributes": ["ADDRESS", "NAME"], "actions": ["INQUIRY_START", "INQUIRY_STOP"]}


@pytest.mark.parametrize("attribute", ["address", "Name", "NAME ", "", "STATUS", "INQUIRY_START"])
def test_any_other_attribute_gives_no_values(bluez, start, attribute):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.get(attribute) == []


def test_nothing_can_be_written(bluez, start):
    bluez.set_adapter(Name=("s", "kitchen"))
    with start().adapter() as client:
        assert client.call("com.kelvo.node.Set", {"values": [string("NAME", "bath")]}) == {"values": []}
        assert client.value("NAME") == "kitchen"


@pytest.mark.parametrize("value", [None, ("u", 7), ("as", ["00:1A:7D:DA:71:13"])], ids=["absent", "number", "list"])
def test_an_adapter_without_a_readable_address_is_left_out(bluez, start, value):
    bluez.set_adapter("hci0", Address=value)
    bluez.set_adapter("hci1", "00:1A:7D:DA:71:14")
    service = start()
    service.wait_log(f"Could not obtain address for adapter {HCI0}", level=4)
    assert f"Adapter added: {HCI0}" not in service.texts()
    assert service.nodes() == ["adapters/00:1A:7D:DA:71:14/adapter", "master", "service"]
    assert not [call for call in bluez.calls_of("Get", path=HCI0) if call.args[1] != "Address"]


def test_an_adapter_whose_address_becomes_readable_is_tried_again_when_announced(bluez, start):
    bluez.set_adapter(Address=None)
    service = start()
    bluez.set_adapter(announce=True)
    service.wait_log(f"Adapter added: {HCI0}", level=1)
    with service.adapter() as client:
        assert client.value("ADDRESS") == "00:1A:7D:DA:71:13"


@pytest.mark.parametrize("value", [None, ("s", "true"), ("u", 1)], ids=["absent", "text", "number"])
def test_an_unreadable_scanning_status_counts_as_not_scanning(bluez, start, value):
    bluez.set_adapter(Discovering=value)
    service = start()
    service.wait_log(f"Could not read out scanning status, assuming no scanning for {HCI0}", level=3)
    with service.adapter() as client:
        assert client.do("INQUIRY_STOP") == 0
        assert not bluez.calls_of("StopDiscovery")
        assert client.do("INQUIRY_START") == 0
    assert len(bluez.calls_of("StartDiscovery")) == 1


# The product name


@pytest.fixture
def with_product(folder, start):
    """Starts the service where sysfs has a USB controller hci0 with this product file (None: no such file)."""
    def run(product, **kwargs):
        device = folder / "devices/usb1/1-1"
        controller = device / "1-1:1.0/bluetooth/hci0"
        controller.mkdir(parents=True)
        if product is not None:
            (device / "product").write_bytes(product)
        script = ('mount -t tmpfs none /sys/class && mkdir /sys/class/bluetooth && '
                  'ln -s "$0" /sys/class/bluetooth/hci0 && exec "$@"')
        return start(prefix=["unshare", "-m", "sh", "-c", script, controller], **kwargs)

    return run


needs_namespace = pytest.mark.skipif(not pathlib.Path("/proc/self/ns/mnt").exists() or
                                     pathlib.Path("/proc/self").stat().st_uid != 0,
                                     reason="needs root for a mount namespace")


@needs_namespace
@pytest.mark.parametrize("product, name", [
    (b"USB Receiver\n", "USB Receiver"),
    (b"  \t spaced out \t\r\n", "spaced out"),
    (b"first\nsecond\n", "first"),
    (b"no line break", "no line break"),
    (b"x" * 1023 + b"\n", "x" * 1023),
    (b"y" * 1024 + b"\n", "y" * 1023),
    (b"z" * 5000, "z" * 1023),
    (b"caf\xe9 \xff\n", "caf\N{REPLACEMENT CHARACTER} \N{REPLACEMENT CHARACTER}"),
    ("Füßchen 蓝牙\n".encode(), "Füßchen 蓝牙"),
], ids=["plain", "trimmed", "first line", "no line break", "1023", "1024", "5000", "not UTF-8", "UTF-8"])
def test_the_product_of_a_usb_controller_is_its_name(bluez, with_product, product, name):
    bluez.set_adapter(Name=("s", "from BlueZ"))
    with with_product(product).adapter() as client:
        assert client.value("NAME") == name


@needs_namespace
@pytest.mark.parametrize("product", [b"", b"\n", b"\nsecond\n"], ids=["empty", "line break", "empty first line"])
def test_a_product_that_cannot_be_read_keeps_the_name_of_bluez(bluez, with_product, product):
    bluez.set_adapter(Name=("s", "from BlueZ"))
    service = with_product(product)
    service.wait_log("failed to read string from file product", level=3)
    with service.adapter() as client:
        assert client.value("NAME") == "from BlueZ"


@needs_namespace
def test_no_product_file_keeps_the_name_of_bluez_silently(bluez, with_product):
    bluez.set_adapter(Name=("s", "from BlueZ"))
    service = with_product(None)
    with service.adapter() as client:
        assert client.value("NAME") == "from BlueZ"
    assert all(line.level == 1 for line in service.logged())


@needs_namespace
@pytest.mark.parametrize("value", [None, ("u", 5)], ids=["absent", "number"])
def test_without_a_name_the_adapter_is_generic_also_with_a_product(bluez, with_product, value):
    bluez.set_adapter(Name=value)
    service = with_product(b"USB Receiver\n")
    service.wait_log(f"Could not get name for adapter {HCI0}", level=3)
    with service.adapter() as client:
        assert client.value("NAME") == "GenericAdapter"


@needs_namespace
def test_an_object_path_of_another_form_keeps_the_name_of_bluez(bluez, with_product):
    bluez.objects["/somewhere/else"] = {ADAPTER: {"Address": ("s", "00:1A:7D:DA:71:13"), "Name": ("s", "odd one"),
                                                  "Discovering": ("b", False)}}
    with with_product(b"USB Receiver\n").adapter() as client:
        assert client.value("NAME") == "odd one"


# Discovery


@pytest.mark.short
def test_inquiry_is_started_and_stopped(bluez, start):
    bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        begin = service.mark()
        assert client.execute(action("INQUIRY_START")) == [integer("INQUIRY_START", 0)]
        call = bluez.wait_call("StartDiscovery")
        assert (call.destination, call.path, call.interface, call.args) == ("org.bluez", HCI0, ADAPTER, ())
        assert client.execute(action("INQUIRY_STOP")) == [integer("INQUIRY_STOP", 0)]
        call = bluez.wait_call("StopDiscovery")
        assert (call.destination, call.path, call.interface, call.args) == ("org.bluez", HCI0, ADAPTER, ())
        service.wait_log(f"Scan stopped for adapter {HCI0}")
    assert [(line.level, line.text) for line in service.logged(begin)] == [
        attempt(1), (1, f"Scan started for adapter {HCI0}"),
        attempt(1), (1, f"Scan stopped for adapter {HCI0}")]


def test_what_is_so_already_is_answered_without_a_call(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.do("INQUIRY_STOP") == 0
        assert client.do("INQUIRY_START") == 0
        assert client.do("INQUIRY_START") == 0
        bluez.settle()
        assert [call.member for call in bluez.calls_of("StartDiscovery", "StopDiscovery")] == ["StartDiscovery"]


def test_an_adapter_that_is_scanning_at_the_start_is_known_to_be(bluez, start):
    bluez.set_adapter(Discovering=("b", True))
    with start().adapter() as client:
        assert client.do("INQUIRY_START") == 0
        assert not bluez.calls_of("StartDiscovery")
        assert client.do("INQUIRY_STOP") == 0
        assert len(bluez.calls_of("StopDiscovery")) == 1


def test_later_changes_of_discovering_are_not_followed(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        bluez.properties_changed(HCI0, {"Discovering": ("b", True)}, interface=ADAPTER)
        bluez.settle()
        assert client.do("INQUIRY_START") == 0
        assert len(bluez.calls_of("StartDiscovery")) == 1


def test_not_ready_is_tried_three_times_with_pauses_of_2500_ms(bluez, start):
    bluez.set_adapter()
    bluez.answer("StartDiscovery", NOT_READY)
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_START", limit=10) == FAILURE
        answered = time.monotonic()
        calls = bluez.calls_of("StartDiscovery")
        assert len(calls) == 3
        for earlier, later in zip(calls, calls[1:]):
            assert 2.4 <= later.time - earlier.time <= stretched(3.0)
        assert answered - calls[2].time < stretched(0.5), "no pause after the third"
        service.expect_log(attempt(1), attempt(2), attempt(3),
                           (4, f"{HCI0}: start/stop discovery failed (too many retries)"))
        bluez.answer("StartDiscovery", Reply())
        assert client.do("INQUIRY_START") == 0, "the adapter still counts as not scanning"
    assert len(bluez.calls_of("StartDiscovery")) == 4


def test_not_ready_once_then_ready(bluez, start):
    bluez.set_adapter()
    bluez.answer("StartDiscovery", NOT_READY, Reply())
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_START", limit=10) == 0
        first, second = bluez.calls_of("StartDiscovery")
        assert 2.4 <= second.time - first.time <= stretched(3.0)
        assert client.do("INQUIRY_START") == 0, "the adapter counts as scanning"
    assert len(bluez.calls_of("StartDiscovery")) == 2


def test_stopping_is_tried_again_too(bluez, start):
    bluez.set_adapter(Discovering=("b", True))
    bluez.answer("StopDiscovery", NOT_READY, FAILED)
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_STOP", limit=10) == FAILURE
    service.expect_log(attempt(1), attempt(2),
                       (4, f"{HCI0}: failed to start/stop discovery: org.bluez.Error.Failed, it failed"))


@pytest.mark.parametrize("error, text", [
    (Error("org.bluez.Error.InProgress", "Operation already in progress"),
     "org.bluez.Error.InProgress, Operation already in progress"),
    (Error("org.bluez.Error.NotReadyYet", "almost"), "org.bluez.Error.NotReadyYet, almost"),
    (Error("org.freedesktop.DBus.Error.UnknownObject", "gone"), "org.freedesktop.DBus.Error.UnknownObject, gone"),
], ids=["in progress", "nearly the name", "gone"])
def test_any_other_error_ends_the_attempt(bluez, start, error, text):
    bluez.set_adapter()
    bluez.answer("StartDiscovery", error, Reply())
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_START") == FAILURE
        service.wait_log(f"{HCI0}: failed to start/stop discovery: {text}", level=4)
        assert client.do("INQUIRY_START") == 0
    assert len(bluez.calls_of("StartDiscovery")) == 2


def test_discovery_waits_as_long_as_the_bus_library_does(bluez, start):
    bluez.set_adapter()
    bluez.answer("StartDiscovery", hold)
    service = start()
    with service.adapter() as client:
        began = time.monotonic()
        assert client.do("INQUIRY_START", limit=40) == FAILURE
        assert 24.9 <= time.monotonic() - began <= stretched(26.5)
    service.wait_log(re.compile(f"{HCI0}: failed to start/stop discovery: org.freedesktop.DBus.Error.NoReply, .+"),
                     level=4)


def test_a_client_that_hangs_up_in_a_pause_ends_the_attempts(bluez, start):
    bluez.set_adapter()
    bluez.answer("StartDiscovery", NOT_READY)
    service = start()
    rest = AtRest(service)
    with service.adapter() as client:
        client.send_execute(action("INQUIRY_START"))
        bluez.wait_call("StartDiscovery")
    bluez.answer("StartDiscovery", Reply())
    with service.adapter() as client:
        assert client.do("INQUIRY_START") == 0
    assert len(bluez.calls_of("StartDiscovery")) == 2
    rest.check()


# Options and names of actions


@pytest.mark.parametrize("option", [string("class", "0x240404"), string("class", ""), listing("class"),
                                    listing("class", integer("major", 1))],
                         ids=["text", "empty text", "empty list", "list"])
def test_the_class_option_is_accepted_and_not_applied(bluez, start, option):
    bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_START", option) == 0
    service.wait_log(CLASS_NOT_APPLIED, level=3)
    assert bluez.wait_call("StartDiscovery").args == ()
    assert not bluez.calls_of("SetDiscoveryFilter")


@pytest.mark.parametrize("options, text", [
    ([integer("class", 5)], "Invalid format for class"),
    ([nothing("class")], "Invalid format for class"),
    ([string("foo", "bar")], "Invalid option foo"),
    ([string("Class", "x")], "Invalid option Class"),
    ([string("foo", "bar"), integer("class", 5)], "Invalid format for class"),
    ([integer("class", 5), string("foo", "bar")], "Invalid option foo"),
    ([string("foo", "bar"), string("class", "fine")], "Invalid option foo"),
])
def test_wrong_options_are_named_and_nothing_is_started(bluez, start, options, text):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.execute(listing("INQUIRY_START", *options)) == [string("INQUIRY_START", text)]
        bluez.settle()
        assert not bluez.calls_of("StartDiscovery")


def test_all_options_are_looked_at(bluez, start):
    bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_START", string("foo", "bar"), string("class", "a"), listing("class")) \
            == "Invalid option foo"
    service.wait_log(CLASS_NOT_APPLIED, level=3, count=2)


def test_an_option_without_a_name_is_no_option(bluez, start):
    bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_START", {"kind": "integer", "integer": 5}).startswith("Invalid option ")


@pytest.mark.parametrize("value", [integer("INQUIRY_START", 7), string("INQUIRY_START", "class"),
                                   nothing("INQUIRY_START"), listing("INQUIRY_START")],
                         ids=["integer", "text", "none", "empty list"])
def test_a_payload_that_is_no_list_of_options_is_accepted(bluez, start, value):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.execute(value) == [integer("INQUIRY_START", 0)]


def test_stopping_ignores_any_payload(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.execute(listing("INQUIRY_STOP", string("foo", "bar"))) == [integer("INQUIRY_STOP", 0)]


@pytest.mark.parametrize("name", ["inquiry_start", "INQUIRY_START ", "STOP", "CONNECT", ""])
def test_any_other_action_is_invalid_with_a_capital_a(bluez, start, name):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.execute(nothing(name)) == [string(name, "Invalid Action")]


def test_an_action_without_a_name_is_an_invalid_one(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.execute({"kind": "none"}) == [{"kind": "string", "text": "Invalid Action"}]


def test_actions_are_carried_out_in_order_each_with_one_result(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.execute(action("INQUIRY_START"), action("what"), action("INQUIRY_STOP"),
                              action("INQUIRY_START")) == [
            integer("INQUIRY_START", 0), string("what", "Invalid Action"), integer("INQUIRY_STOP", 0),
            integer("INQUIRY_START", 0)]
        assert client.execute() == []
    assert [call.member for call in bluez.calls_of("StartDiscovery", "StopDiscovery")] == [
        "StartDiscovery", "StopDiscovery", "StartDiscovery"]
