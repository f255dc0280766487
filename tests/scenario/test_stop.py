"""How the service ends: STOP, signals, a lost bus; and what is left then."""

import re
import signal
import time

import pytest

from harness import varlink
from harness.bluez import MANAGER, NOT_READY, Reply, hold
from harness.varlink import action, integer, string
from harness.waiting import stretched

DEREGISTER = "Failed to de-register authentication agent: "


def nothing_left(service):
    return service.root.is_dir() and not (service.root / "bluetooth").exists()


@pytest.mark.short
def test_stop_answers_logs_and_ends(bluez, start):
    service = start()
    with service.control() as client:
        assert client.execute(action("STOP")) == [integer("STOP", 0)]
        answered = time.monotonic()
        assert service.wait() == 0
        assert time.monotonic() - answered < stretched(0.8), "ends within 500 ms of STOP on a quiet bus"
        client.expect_closed()
    lines = [(line.level, line.text) for line in service.logged()]
    assert lines[-3:-1] == [(1, "Service terminate requested"), (1, "Service terminated")]
    assert lines[-1][0] == 3 and lines[-1][1].startswith(DEREGISTER)
    assert nothing_left(service)


def test_the_agent_is_unregistered_without_an_argument(bluez, start):
    service = start()
    assert service.stop() == 0
    call = bluez.wait_call("UnregisterAgent")
    assert (call.destination, call.path, call.interface, call.args) == ("org.bluez", "/org/bluez", MANAGER, ())
    assert call is bluez.calls.all()[-1], "the last thing that the service asks"
    service.wait_log(f"{DEREGISTER}Method \"UnregisterAgent\" with signature \"\" on interface \"{MANAGER}\" "
                     r"doesn't exist\n", level=3)


def test_an_accepted_unregistration_is_not_mentioned(bluez, start):
    bluez.answer("UnregisterAgent", Reply())
    service = start()
    assert service.stop() == 0
    assert service.texts()[-1] == "Service terminated"


def test_an_unregistration_without_an_answer_is_waited_for_one_second(bluez, start):
    bluez.answer("UnregisterAgent", hold)
    service = start()
    with service.control() as client:
        client.do("STOP")
    bluez.wait_call("UnregisterAgent")
    assert service.wait() == 0
    line = service.wait_log(re.compile(DEREGISTER + r"Did not receive a reply\..*"), level=3)
    # By the service's own clock: on a busy machine the call is seen late.
    ended = service.wait_log("Service terminated", level=1)
    assert 0.95 <= (line.time - ended.time).total_seconds() <= stretched(1.7)


def test_two_stops_in_one_call_give_two_results_and_two_lines(start):
    service = start()
    with service.control() as client:
        assert client.execute(action("STOP"), action("STOP")) == [integer("STOP", 0), integer("STOP", 0)]
    assert service.wait() == 0
    assert service.texts().count("Service terminate requested") == 2
    service.expect_log((1, "Service terminate requested"), (1, "Service terminate requested"),
                       (1, "Service terminated"))


def test_stop_among_unknown_actions_is_carried_out(start):
    service = start()
    with service.control() as client:
        assert client.execute(action("stop"), action("STOP"), action("INQUIRY_START")) == [
            string("stop", "Invalid action"), integer("STOP", 0), string("INQUIRY_START", "Invalid action")]
    assert service.wait() == 0


def test_stop_with_a_payload_is_a_stop(start):
    service = start()
    with service.control() as client:
        assert client.execute(varlink.listing("STOP", integer("x", 1))) == [integer("STOP", 0)]
    assert service.wait() == 0


def test_stop_as_oneway_ends_the_service_without_a_reply(start):
    service = start()
    with service.control() as client:
        client.send_execute(action("STOP"), oneway=True)
        client.expect_closed()
    assert service.wait() == 0
    assert "Service terminate requested" in service.texts()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=lambda number: number.name)
def test_a_signal_ends_the_service_as_stop_does(start, number):
    service = start()
    sent = time.monotonic()
    service.send_signal(number)
    assert service.wait() == 0
    assert time.monotonic() - sent < stretched(1)
    service.expect_log((1, "Service terminate requested"), (1, "Service terminated"))
    assert nothing_left(service)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT], ids=lambda number: number.name)
def test_a_signal_during_the_start_ends_the_service_after_it(bluez, launch, number):
    bluez.answer("GetManagedObjects", hold)
    service = launch()
    service.wait_log("Initializing service")
    service.send_signal(number)
    bluez.wait_call("GetManagedObjects").reply("a{oa{sa{sv}}}", {})
    assert service.wait() == 0
    service.expect_log((1, "Service terminate requested"), (1, "Service terminated"))
    assert nothing_left(service)


def test_many_signals_are_one_end(start):
    service = start()
    for _ in range(20):
        service.send_signal(signal.SIGTERM)
        service.send_signal(signal.SIGINT)
    assert service.wait() == 0


def test_a_lost_bus_ends_the_service_with_success(bus, bluez, start):
    bluez.set_adapter()
    bluez.set_device()
    service = start()
    lost = time.monotonic()
    bus.kill()
    assert service.wait() == 0
    assert time.monotonic() - lost < stretched(1)
    service.wait_log("Connection lost, service terminated", level=3)
    assert "Service terminated" not in service.texts()
    assert nothing_left(service)


class Blocked:
    """A service with every kind of request that blocks in progress, and a watch on each kind of node."""

    def __init__(self, bluez, start):
        bluez.set_adapter("hci0", "00:00:00:00:00:01")
        bluez.set_adapter("hci1", "00:00:00:00:00:02")
        bluez.set_device("00:11:22:33:44:01")
        bluez.set_device("00:11:22:33:44:02", Paired=("b", True))
        bluez.answer("StartDiscovery", NOT_READY, path="/org/bluez/hci0")
        bluez.answer("StartDiscovery", hold, path="/org/bluez/hci1")
        self.service = start()
        self.blocked = []
        self.watches = []
        self._begin(self.service.adapter("00:00:00:00:00:01"), "INQUIRY_START")
        self._begin(self.service.adapter("00:00:00:00:00:02"), "INQUIRY_START")
        self._begin(self.service.device("00:11:22:33:44:01"), "CONNECT")
        bluez.wait_call("StartDiscovery", path="/org/bluez/hci0")
        bluez.wait_call("StartDiscovery", path="/org/bluez/hci1")
        bluez.wait_call("Pair")
        for _ in range(5):
            self._begin(self.service.device("00:11:22:33:44:01"), "WAIT_CONNECTED")
        for open_node in (self.service.control, self.service.master, self.service.device):
            client = open_node("00:11:22:33:44:02") if open_node == self.service.device else open_node()
            client.watch()
            self.watches.append(client)

    def _begin(self, client, name):
        client.send_execute(action(name))
        self.blocked.append(client)

    def check_end(self, began):
        assert self.service.wait() == 0
        assert time.monotonic() - began < stretched(1.2), "the process ends within a second whatever waits"
        for client in self.blocked:
            client.expect_closed()
            client.close()
        for client in self.watches:
            assert client.receive()["error"] == "com.kelvo.node.Withdrawn"
            client.expect_closed()
            client.close()
        assert nothing_left(self.service)


def test_stop_ends_whatever_is_in_progress(bluez, start):
    scene = Blocked(bluez, start)
    began = time.monotonic()
    with scene.service.control() as client:
        assert client.do("STOP") == 0
    scene.check_end(began)


def test_a_signal_ends_whatever_is_in_progress(bluez, start):
    scene = Blocked(bluez, start)
    began = time.monotonic()
    scene.service.send_signal(signal.SIGTERM)
    scene.check_end(began)


def test_a_lost_bus_ends_whatever_is_in_progress(bus, bluez, start):
    scene = Blocked(bluez, start)
    began = time.monotonic()
    bus.kill()
    scene.check_end(began)


def test_stop_on_a_bus_that_hangs(bus, bluez, start):
    """Nobody answers any more, not even the bus: the agent's unregistration is the one second that is left."""
    bluez.set_adapter()
    service = start()
    bus.pause()
    try:
        with service.adapter() as waiting, service.control() as client:
            waiting.send_execute(action("INQUIRY_START"))
            began = time.monotonic()
            assert client.do("STOP") == 0
            assert service.wait() == 0
            assert time.monotonic() - began < stretched(2.2)
    finally:
        bus.resume()


def test_the_service_can_be_started_again_after_every_end(bus, bluez, start):
    bluez.set_adapter()
    for end in (lambda service: service.stop(), lambda service: service.send_signal(signal.SIGINT)):
        service = start()
        with service.adapter() as client:
            assert client.value("ADDRESS") == "00:1A:7D:DA:71:13"
        end(service)
        assert service.wait() == 0
