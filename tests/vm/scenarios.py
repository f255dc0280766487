"""What the service does on a BlueZ with two controllers, told so that it holds on the real one and on the simulator."""

import signal
import threading
import time

from worlds import (FIRST, HEADSET, KEYBOARD, NOT_OFFERED, OFFERED, SECOND, SECOND_PATH, ADAPTER)

from harness.varlink import FAILURE, REFUSED, SUCCESS, Closed, action, integer
from harness.waiting import TimedOut, wait_until

SCENARIOS = {}


def scenario(*worlds):
    """Registers a scenario; worlds are the names of those it can run on, all when none is named."""
    def register(function):
        SCENARIOS[function.__name__] = (function, worlds)
        return function
    return register


# Words the scenarios share


def find(service, world):
    """An inquiry on the first controller that finds the second one; gives its node as a client."""
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
        service.wait_node(service.device_node(SECOND), limit=20)
        assert adapter.do("INQUIRY_STOP") == SUCCESS
    return service.device(SECOND)


def connect(device, limit=20):
    """CONNECT; gives the pincode to type, None when the pairing ended at once."""
    answer = dict(device.do("CONNECT", integer("timeout", 60000), limit=limit))
    if answer["RESULT"] == 1:
        assert len(answer["PINCODE"]) == 6 and answer["PINCODE"].isdigit(), answer
        return answer["PINCODE"]
    assert answer == {"RESULT": SUCCESS}, answer
    return None


class Waiting:
    """A request that is under way on a thread of its own."""

    def __init__(self, client, name, *options, limit=90):
        self._result = None
        self._error = None
        self._thread = threading.Thread(target=self._run, args=(client, name, options, limit), daemon=True)
        client.send_execute(action(name, *options))
        self._thread.start()

    def _run(self, client, name, _options, limit):
        try:
            self._result = client.done(name, limit)
        except Exception as error:  # pylint: disable=broad-except
            self._error = error

    def result(self, limit=90):
        self._thread.join(limit)
        assert not self._thread.is_alive(), "the request was not answered"
        if self._error is not None:
            raise self._error
        return self._result


def pair(service, world, device):
    """The whole road: the pincode is shown, the user types it, WAIT_CONNECTED says paired."""
    world.other_side.type(...)
    pincode = connect(device)
    world.other_side.type(pincode)
    with service.device(SECOND) as waiter:
        assert waiter.do("WAIT_CONNECTED", integer("timeout", 60000), limit=60) == SUCCESS
    assert device.value("STATUS") == 3


def profiles(device, attribute="PROFILES"):
    return [number for _, number in device.value(attribute)]


# Start and adapters


@scenario()
def starts_with_bluez_there(world, start):
    world.prepare()
    service = start()
    for address in (FIRST, SECOND):
        with service.adapter(address) as adapter:
            assert adapter.value("ADDRESS") == address
            assert adapter.value("NAME")
    assert service.nodes() == sorted([f"adapters/{FIRST}/adapter", f"adapters/{SECOND}/adapter", "master", "service"])
    assert service.stop() == 0
    service.expect_log((1, "Service terminate requested"), (1, "Service terminated"))


@scenario("bluetoothd")
def the_bus_starts_bluez_when_the_service_asks(world, start):
    """The call activates bluetoothd. Where that takes longer than a second, the next start finds it there."""
    world.reset()
    world.plug()
    world.activatable(True)
    try:
        try:
            service = start()
        except TimedOut:
            service = start()
        for address in (FIRST, SECOND):
            service.wait_node(service.adapter_node(address), limit=20)
        assert service.stop() == 0
    finally:
        world.activatable(False)
        world.reset()


@scenario()
def inquiry_on_one_adapter_finds_the_keyboard(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device:
        assert device.value("ADDRESS") == SECOND
        assert device.value("NAME")
        assert device.value("STATUS") == 1
        assert (device.value("MAJOR_DEVICE_CLASS"), device.value("MINOR_DEVICE_CLASS")) == (5, 16)
        assert profiles(device) == []
    assert world.property("/org/bluez/hci0", ADAPTER, "Discovering") is False


@scenario()
def inquiry_on_the_master_and_twice(world, start):
    world.prepare()
    service = start()
    with service.master() as master, service.adapter(FIRST) as adapter:
        assert master.do("INQUIRY_START") == SUCCESS
        for number in (0, 1):
            wait_until(lambda n=number: world.property(f"/org/bluez/hci{n}", ADAPTER, "Discovering") is True,
                       f"hci{number} discovering", limit=10)
        assert adapter.do("INQUIRY_START") == SUCCESS
        assert master.do("INQUIRY_STOP") == SUCCESS
        for number in (0, 1):
            wait_until(lambda n=number: world.property(f"/org/bluez/hci{n}", ADAPTER, "Discovering") is False,
                       f"hci{number} not discovering", limit=10)
        assert adapter.do("INQUIRY_STOP") == SUCCESS
    assert world.calls_of_service("StartDiscovery") == 2
    assert world.calls_of_service("StopDiscovery") == 2


@scenario()
def a_scan_of_somebody_else_is_left_alone(world, start):
    world.prepare()
    service = start()
    world.call("/org/bluez/hci0", ADAPTER, "StartDiscovery")
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
        assert adapter.do("INQUIRY_STOP") == SUCCESS
    assert world.property("/org/bluez/hci0", ADAPTER, "Discovering") is True
    world.call("/org/bluez/hci0", ADAPTER, "StopDiscovery")


@scenario()
def the_end_of_the_service_ends_its_scan(world, start):
    world.prepare()
    service = start()
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
    service.stop()
    wait_until(lambda: world.property("/org/bluez/hci0", ADAPTER, "Discovering") is False, "no scan left", limit=10)


@scenario()
def a_controller_that_is_off_is_tried_three_times(world, start):
    world.prepare()
    service = start()
    world.set_powered("hci0", False)
    try:
        with service.adapter(FIRST) as adapter:
            began = time.monotonic()
            assert adapter.do("INQUIRY_START", limit=30) == FAILURE
            assert 5.0 <= time.monotonic() - began < 8.0
        assert world.calls_of_service("StartDiscovery") == 3
        service.wait_log("/org/bluez/hci0: start/stop discovery failed (too many retries)", level=4)
    finally:
        world.set_powered("hci0", True)


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
    assert world.calls_of_service("StartDiscovery") == 2


# Pairing


@scenario()
def the_pincode_is_shown_and_the_right_one_pairs(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device:
        world.other_side.type(...)
        pincode = connect(device)
        assert device.value("STATUS") == 0
        with service.device(SECOND) as first, service.device(SECOND) as second:
            waiting = [Waiting(client, "WAIT_CONNECTED") for client in (first, second)]
            world.other_side.type(pincode)
            assert [wait.result() for wait in waiting] == [SUCCESS, SUCCESS]
        assert device.value("STATUS") == 3
        listed = world.property(SECOND_PATH, "org.bluez.Device1", "UUIDs")
        assert profiles(device) == [int(uuid[:8], 16) for uuid in listed]
        # Paired is paired: no second bus call.
        assert device.do("CONNECT") == [("RESULT", REFUSED)]
        assert device.do("WAIT_CONNECTED") == SUCCESS
    assert world.calls_of_service("Pair") == 1


@scenario()
def a_rejection_ends_the_wait_and_a_second_try_pairs(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device:
        world.other_side.type(...)
        connect(device)
        with service.device(SECOND) as client:
            waiting = Waiting(client, "WAIT_CONNECTED")
            world.other_side.type(None)
            assert waiting.result() == FAILURE
        assert device.value("STATUS") == 1
        pair(service, world, device)


@scenario()
def disconnect_cancels_and_leaves_the_device_usable(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device:
        world.other_side.type(...)
        connect(device)
        with service.device(SECOND) as client:
            waiting = Waiting(client, "WAIT_CONNECTED")
            assert device.do("DISCONNECT", limit=20) == SUCCESS
            assert waiting.result() == FAILURE
        assert device.value("STATUS") == 1
        service.wait_log(f"Pair canceled: {SECOND_PATH}", level=1)
    assert world.calls_of_service("CancelPairing") == 1


@scenario()
def a_headset_pairs_without_a_pincode(world, start):
    world.prepare(HEADSET)
    service = start()
    with find(service, world) as device:
        assert connect(device) is None
        assert device.value("STATUS") == 3
        assert profiles(device)


@scenario()
def a_profile_that_is_offered_connects_and_another_does_not(world, start):
    world.prepare(HEADSET)
    service = start()
    with find(service, world) as device:
        assert connect(device) is None
        offered, missing = int(OFFERED[:8], 16), int(NOT_OFFERED[:8], 16)
        assert device.do("ACTIVATE_PROFILE", integer("PROFILE", missing)) == [("RESULT", REFUSED)]
        assert device.do("ACTIVATE_PROFILE", integer("PROFILE", offered), limit=20) == [("RESULT", SUCCESS)]
        assert profiles(device, "ACTIVE_PROFILES") == [offered]
        # Active already: refused without a bus call.
        assert device.do("ACTIVATE_PROFILE", integer("PROFILE", offered)) == [("RESULT", REFUSED)]
    assert world.calls_of_service("ConnectProfile") == 1


# What comes and goes


@scenario()
def a_device_removed_in_bluez_takes_its_node_along(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device:
        device.watch()
        world.remove_device()
        service.wait_gone(service.device_node(SECOND), limit=20)
        reply = device.receive()
        assert reply.get("error") == "com.kelvo.node.Withdrawn", reply
    find(service, world).close()


@scenario()
def a_renamed_device_is_seen(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device, service.device(SECOND) as watcher:
        watcher.watch()
        world.call(SECOND_PATH, "org.freedesktop.DBus.Properties", "Set", "ssv", "org.bluez.Device1", "Alias",
                   ("s", "My keyboard"))
        assert watcher.change(limit=20) == 0
        assert device.value("NAME") == "My keyboard"


@scenario()
def a_controller_unplugged_and_plugged_in_again_is_back(world, start):
    world.prepare(KEYBOARD)
    service = start()
    find(service, world).close()
    world.unplug()
    service.wait_gone(service.node("adapters"), limit=20)
    service.wait_gone(service.node("devices"), limit=20)
    world.plug()
    for address in (FIRST, SECOND):
        service.wait_node(service.adapter_node(address), limit=30)


@scenario()
def bluez_killed_in_the_middle_of_a_pairing_answers_everybody(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device, service.device(SECOND) as client:
        world.other_side.type(...)
        connect(device)
        waiting = Waiting(client, "WAIT_CONNECTED")
        service.wait_waiting(client)
        world.stop_bluez(signal.SIGKILL)
        assert waiting.result() == FAILURE
    assert service.stop() == 0
    world.reset()


@scenario()
def bluez_restarted_under_the_service_needs_a_restart_of_it_too(world, start):
    """The agent is registered once and objects are read once: documented, and mended by the unit's dependencies."""
    world.prepare()
    service = start()
    world.stop_bluez()
    world.start_bluez()
    world.wait_controllers()
    assert service.running
    assert service.stop() == 0
    again = start()
    again.wait_node(again.adapter_node(FIRST))
    with again.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
        assert adapter.do("INQUIRY_STOP") == SUCCESS


@scenario()
def stop_with_everything_going_on(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service, world) as device, service.master() as master:
        world.other_side.type(...)
        connect(device)
        assert master.do("INQUIRY_START") == SUCCESS
        clients = [service.device(SECOND) for _ in range(20)]
        waiting = [Waiting(client, "WAIT_CONNECTED") for client in clients]
        watcher = service.device(SECOND)
        watcher.watch()
        began = time.monotonic()
        assert service.stop() == 0
        assert time.monotonic() - began < 3.0
        assert watcher.receive().get("error") == "com.kelvo.node.Withdrawn"
        for wait in waiting:
            try:
                wait.result()
                raise AssertionError("a blocked request was answered at the end of the service")
            except Closed:
                pass
        for client in [*clients, watcher]:
            client.close()
    assert not service.node("").exists()
