"""A service that is killed at any moment, and the one that comes after it."""

import random

import pytest

from harness.bluez import NOT_READY
from harness.varlink import Closed, action
from harness.waiting import wait_until


@pytest.mark.soak
def test_killed_at_any_moment_the_next_one_has_it_all(bluez, launch):
    chance = random.Random(7)
    bluez.set_adapter()
    for number in range(20):
        bluez.set_device(f"00:11:22:33:44:{number:02X}")
    expected = sorted(["adapters/00:1A:7D:DA:71:13/adapter", "master", "service",
                       *(f"devices/00:11:22:33:44:{number:02X}/device" for number in range(20))])
    for _ in range(25):
        service = launch()
        # Some lines of the log later: at any moment of a start.
        service.wait_log(r"Initializing service", level=1)
        lines = chance.randrange(24)
        wait_until(lambda: service.mark() > lines or service.mark() >= 26, "some lines of the log")
        service.popen.kill()
        service.wait()
    service = launch().wait_ready()
    assert service.nodes() == expected
    for name in expected:
        with service.open(name) as client:
            client.describe()
    assert service.stop() == 0
    assert not service.node("").exists()


@pytest.mark.parametrize("failure", ["no bus", "no BlueZ", "agent refused"])
def test_a_start_that_fails_leaves_nothing_of_a_killed_one(bus, bluez, start, launch, failure):
    bluez.set_adapter()
    bluez.set_device()
    killed = start()
    killed.popen.kill()
    killed.wait()
    assert killed.node("service").exists()
    if failure == "no bus":
        bus.kill()
    elif failure == "no BlueZ":
        bluez.close()
    else:
        bluez.answer("RegisterAgent", NOT_READY)
    assert launch().wait() == 1
    assert not killed.node("").exists()
    assert not [entry.name for entry in killed.root.iterdir() if not entry.name.endswith(".lock")]


def test_clients_of_a_killed_service_are_told_by_the_kernel(bluez, start):
    bluez.set_device()
    service = start()
    with service.device() as waiting, service.device() as watching:
        watching.watch()
        waiting.send_execute(action("CONNECT"))
        bluez.wait_call("Pair")
        service.popen.kill()
        service.wait()
        for client in (waiting, watching):
            with pytest.raises((Closed, ConnectionError)):
                client.receive()
    start()
    with service.device() as client:
        assert client.value("STATUS") == 1


def test_two_services_started_at_once_are_one(bluez, launch):
    bluez.set_adapter()
    for _ in range(10):
        both = [launch(), launch()]
        wait_until(lambda: sum(service.running for service in both) == 1, "one of two to be refused")
        refused, kept = sorted(both, key=lambda service: service.running)
        assert refused.wait() == 1
        kept.wait_ready()
        with kept.adapter() as client:
            client.describe()
        assert kept.stop() == 0
