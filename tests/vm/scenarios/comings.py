"""What comes and goes: devices, controllers, BlueZ, the service."""

import signal
import time

from scenarios.adapters import check_adapters, wait_discovering
from scenarios.words import Waiting, connect, find, pair, pair_again, scenario
from worlds.facts import DEVICE, FIRST, KEYBOARD, PROPERTIES, SECOND, SECOND_PATH

from harness.varlink import FAILURE, REFUSED, SUCCESS, Closed


@scenario()
def a_device_removed_in_bluez_takes_its_node_along(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        device.watch()
        world.remove_device()
        service.wait_gone(service.device_node(SECOND), limit=20)
        reply = device.receive()
        assert reply.get("error") == "com.kelvo.node.Withdrawn", reply
    find(service).close()


@scenario()
def a_paired_device_removed_in_bluez_can_be_paired_again(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device:
        pair(service, world, device)
    world.remove_device()
    pair_again(service, world)


@scenario()
def a_renamed_device_is_seen(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device, service.device(SECOND) as watcher:
        watcher.watch()
        world.call(SECOND_PATH, PROPERTIES, "Set", "ssv", DEVICE, "Alias", ("s", "My keyboard"))
        assert watcher.change(limit=20) == 0
        assert device.value("NAME") == "My keyboard"


@scenario()
def a_controller_unplugged_and_plugged_in_again_is_back(world, start):
    world.prepare(KEYBOARD)
    service = start()
    find(service).close()
    world.unplug()
    service.wait_gone(service.node("adapters"), limit=20)
    service.wait_gone(service.node("devices"), limit=20)
    world.plug()
    check_adapters(service, world)
    world.wait_controllers()
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
        wait_discovering(world, "hci0", True)


@scenario()
def bluez_killed_in_the_middle_of_a_pairing_answers_everybody(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device, service.device(SECOND) as client:
        connect(device)
        waiting = Waiting(client, "WAIT_CONNECTED")
        service.wait_waiting(client)
        world.stop_bluez(signal.SIGKILL)
        assert waiting.result() == FAILURE
        # Nobody told the service that the objects are gone: it goes on showing them, and each call fails at once.
        assert device.value("STATUS") == 1
        assert device.do("CONNECT") == [("RESULT", REFUSED)]
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START", limit=20) == FAILURE
    assert service.stop() == 0


@scenario()
def bluez_restarted_under_the_service_needs_a_restart_of_it_too(world, start):
    """The agent is registered once. That is why the unit file binds the service to bluetooth.service."""
    world.prepare(KEYBOARD)
    service = start()
    find(service).close()
    world.stop_bluez()
    service.wait_gone(service.node("adapters"), limit=20)
    service.wait_gone(service.node("devices"), limit=20)
    world.start_bluez()
    world.wait_controllers()
    world.dress(KEYBOARD)
    # The nodes are back and inquiries work, but BlueZ has nobody to tell the pincode to.
    check_adapters(service, world)
    with find(service) as device:
        assert device.do("CONNECT", limit=20) == [("RESULT", REFUSED)]
    service.wait_gone(service.device_node(SECOND), limit=20)
    assert world.calls_of_service("RegisterAgent") == 1
    assert service.stop() == 0
    again = start()
    with find(again) as device:
        assert connect(device) is not None


@scenario()
def stop_with_everything_going_on(world, start):
    world.prepare(KEYBOARD)
    service = start()
    with find(service) as device, service.master() as master:
        # In this order: while it pairs, BlueZ lets whoever asks for a discovery wait.
        assert master.do("INQUIRY_START") == SUCCESS
        connect(device)
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
    # The caller of Pair has left the bus, which ends the pairing.
    wait_discovering(world, "hci0", False)
    assert world.property(SECOND_PATH, DEVICE, "Paired") is not True
