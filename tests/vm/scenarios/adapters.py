"""Start, adapters, inquiries."""

import time

from scenarios.words import Waiting, find, profiles, scenario
from worlds.facts import ADAPTER, FIRST, KEYBOARD, SECOND

from harness.varlink import FAILURE, SUCCESS
from harness.waiting import TimedOut


def check_adapters(service, world):
    """Both controllers are nodes, with what BlueZ tells of them."""
    for name, address in (("hci0", FIRST), ("hci1", SECOND)):
        service.wait_node(service.adapter_node(address), limit=20)
        with service.adapter(address) as adapter:
            assert adapter.value("ADDRESS") == address == world.property(f"/org/bluez/{name}", ADAPTER, "Address")
            assert adapter.value("NAME") == world.property(f"/org/bluez/{name}", ADAPTER, "Name")
            assert adapter.value("NAME")


def wait_discovering(world, adapter, value):
    world.wait(lambda: world.property(f"/org/bluez/{adapter}", ADAPTER, "Discovering") is value,
               f"{adapter} discovering: {value}", limit=10)


@scenario()
def starts_with_bluez_there(world, start):
    world.prepare()
    service = start()
    assert service.nodes() == sorted([f"adapters/{FIRST}/adapter", f"adapters/{SECOND}/adapter", "master", "service"])
    check_adapters(service, world)
    assert service.stop() == 0
    service.expect_log((1, "Service terminate requested"), (1, "Service terminated"))


@scenario("bluetoothd")
def the_bus_starts_bluez_when_the_service_asks(world, start):
    """The service's first call starts bluetoothd. Where that takes more than a second, the next start finds it there."""
    world.plug()
    world.activatable()
    try:
        service = start()
    except TimedOut:
        world.wait_bluez()
        service = start()
    check_adapters(service, world)
    assert service.stop() == 0


@scenario()
def inquiry_on_one_adapter_finds_the_keyboard(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        assert device.value("ADDRESS") == SECOND
        assert device.value("NAME")
        assert device.value("STATUS") == 1
        assert (device.value("MAJOR_DEVICE_CLASS"), device.value("MINOR_DEVICE_CLASS")) == (5, 16)
        assert profiles(device) == []
    wait_discovering(world, "hci0", False)


@scenario()
def inquiry_on_the_master_and_twice(world, start):
    world.prepare()
    service = start()
    with service.master() as master, service.adapter(FIRST) as adapter:
        assert master.do("INQUIRY_START") == SUCCESS
        for name in ("hci0", "hci1"):
            wait_discovering(world, name, True)
        assert adapter.do("INQUIRY_START") == SUCCESS
        assert master.do("INQUIRY_STOP") == SUCCESS
        for name in ("hci0", "hci1"):
            wait_discovering(world, name, False)
        assert adapter.do("INQUIRY_STOP") == SUCCESS
    assert world.calls_of_service("StartDiscovery") == 2
    assert world.calls_of_service("StopDiscovery") == 2


@scenario()
def a_scan_of_somebody_else_is_left_alone(world, start):
    """BlueZ keeps a discovery for each connection: stopping ours does not stop another one's."""
    world.prepare()
    service = start()
    world.call("/org/bluez/hci0", ADAPTER, "StartDiscovery")
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
        assert adapter.do("INQUIRY_STOP") == SUCCESS
    assert world.property("/org/bluez/hci0", ADAPTER, "Discovering") is True
    world.call("/org/bluez/hci0", ADAPTER, "StopDiscovery")
    wait_discovering(world, "hci0", False)
    assert world.calls_of_service("StopDiscovery") == 1


@scenario()
def the_end_of_the_service_ends_its_scan(world, start):
    world.prepare()
    service = start()
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
    wait_discovering(world, "hci0", True)
    assert service.stop() == 0
    wait_discovering(world, "hci0", False)


@scenario()
def a_controller_that_is_off_is_tried_three_times(world, start):
    world.prepare()
    service = start()
    world.set_powered("hci0", False)
    with service.adapter(FIRST) as adapter:
        began = time.monotonic()
        assert adapter.do("INQUIRY_START", limit=30) == FAILURE
        assert 5.0 <= time.monotonic() - began < 8.0
    assert world.calls_of_service("StartDiscovery") == 3
    service.wait_log("/org/bluez/hci0: start/stop discovery failed (too many retries)", level=4)


@scenario()
def a_controller_switched_on_between_the_attempts_scans(world, start):
    world.prepare()
    service = start()
    world.set_powered("hci0", False)
    with service.adapter(FIRST) as adapter:
        waiting = Waiting(adapter, "INQUIRY_START")
        world.wait_calls_of_service("StartDiscovery", 1)
        world.set_powered("hci0", True)
        assert waiting.result() == SUCCESS
        wait_discovering(world, "hci0", True)
    assert world.calls_of_service("StartDiscovery") == 2
