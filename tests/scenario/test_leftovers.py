"""What is left of clients that came and went: nothing."""

import random
import threading
import time

import pytest

from harness.bluez import Error, Reply, device_path, hold
from harness.process import AtRest
from harness.varlink import FAILURE, NOTHING_TO_WAIT_FOR, REFUSED, Closed, action, integer
from harness.waiting import SLOWNESS, stretched, wait_until

PATH = device_path("00:11:22:33:44:55")


def test_hundreds_of_requests_that_block_cost_no_thread_that_stays(bluez, start):
    bluez.set_device()
    service = start()
    with service.device() as client:
        client.describe()
    threads = service.threads()
    before = AtRest(service)
    with service.device() as connecting:
        connecting.send_execute(action("CONNECT"))
        pair = bluez.wait_call("Pair")
        waiting = []
        for _ in range(60):
            waiting.append(service.device())
            waiting[-1].send_execute(action("WAIT_CONNECTED"))
        service.wait_asleep(waiting[-1])
        pair.reply()
        for client in waiting:
            assert client.done("WAIT_CONNECTED") == 0
            client.close()
        assert connecting.done("CONNECT") == [("RESULT", 0)]
    before.check()
    wait_until(lambda: service.threads() <= threads + 8, "threads that went when the load did", limit=30)


def test_a_client_that_hangs_up_frees_what_its_request_held_at_once(bluez, start):
    bluez.set_device()
    service = start()
    before = AtRest(service)
    with service.device() as connecting:
        connecting.send_execute(action("CONNECT"))
        bluez.wait_call("Pair")
        for _ in range(50):
            with service.device() as client:
                client.send_execute(action("WAIT_CONNECTED"))
                service.wait_asleep(client)
    before.check()
    with service.device() as client:
        assert client.value("STATUS") == 2, "the pairing goes on"
        bluez.calls_of("Pair")[0].reply()
        wait_until(lambda: client.value("STATUS") == 3, "a paired device")


def test_waiting_costs_no_processor_time(bluez, start):
    bluez.set_device()
    bluez.set_adapter()
    bluez.answer("StartDiscovery", hold)
    service = start()
    with service.device() as connecting, service.device() as waiting, service.adapter() as scanning, \
            service.device() as watching:
        connecting.send_execute(action("CONNECT"))
        waiting.send_execute(action("WAIT_CONNECTED"))
        scanning.send_execute(action("INQUIRY_START"))
        watching.watch()
        service.wait_asleep(scanning)
        used, began = service.cpu_seconds(), time.monotonic()
        with pytest.raises(AssertionError):
            connecting.receive(limit=2 / SLOWNESS)
        assert service.cpu_seconds() - used <= 0.05 * (time.monotonic() - began) * SLOWNESS


def test_connections_that_do_nothing_but_come_and_go(bluez, start):
    bluez.set_adapter()
    service = start()
    before = AtRest(service)
    for _ in range(2000):
        service.adapter().close()
    before.check()
    with service.adapter() as client:
        client.describe()


@pytest.mark.soak
def test_hundreds_of_pairings_with_clients_that_hang_up_at_random(bluez, start):
    """Each round BlueZ does one of what it may do, and clients leave at any moment of it."""
    chance = random.Random(20261120)
    bluez.set_device(UUIDs=("as", ["0000110b-0000-1000-8000-00805f9b34fb"]))
    service = start()
    before = AtRest(service)
    resident = None
    rounds = 400
    for number in range(rounds):
        if number == rounds // 4:
            resident = service.resident()
        pairing_round(bluez, service, chance, number)
    before.check()
    assert service.resident() - resident < 3 * 1024, "KiB more after three quarters of the rounds"
    with service.device() as client:
        assert client.do("WAIT_CONNECTED") == NOTHING_TO_WAIT_FOR
        assert client.do("DISCONNECT") == FAILURE


def pairing_round(bluez, service, chance, number):
    """Ends with the device as new."""
    connecting = service.device()
    others = [service.device() for _ in range(chance.randrange(4))]
    connecting.send_execute(action("CONNECT"))
    pair = bluez.wait_call("Pair", count=number + 1)
    for client in others:
        client.send_execute(action(chance.choice(["WAIT_CONNECTED", "WAIT_CONNECTED", "CONNECT"])))
    leaving = [client for client in [connecting, *others] if chance.random() < 0.5]
    steps = [client.close for client in leaving]
    steps += [lambda: bluez.begin_agent_call("DisplayPinCode", "os", PATH, f"{number}")] * chance.randrange(3)
    if chance.random() < 0.2:
        others.append(service.device())
        steps.append(lambda client=others[-1]: client.send_execute(action("DISCONNECT")))
    chance.shuffle(steps)
    for step in steps:
        step()
    bluez.settle()
    with service.device() as observer:
        observer.describe()
        service.wait_asleep(observer)
    success = chance.random() < 0.3
    if success:
        pair.reply()
    else:
        pair.error("org.bluez.Error.AuthenticationFailed")
    for client in [connecting, *others]:
        if client not in leaving:
            answer = client.result()["values"][0]
            outcome = answer.get("integer", answer.get("children", [{}])[0].get("integer"))
            assert outcome in (0, 1, FAILURE, REFUSED, NOTHING_TO_WAIT_FOR), answer
            client.close()
    # A paired (or never quite cancelled) device would refuse the next round: BlueZ forgets it and finds it again.
    if success:
        bluez.remove(PATH)
        service.wait_gone(service.device_node())
        bluez.set_device(UUIDs=("as", ["0000110b-0000-1000-8000-00805f9b34fb"]), announce=True)
        service.wait_node(service.device_node())
    with service.device() as client:
        wait_until(lambda: client.value("STATUS") == 1, "an unpaired device")


@pytest.mark.soak
def test_objects_that_come_and_go_leave_nothing(bluez, monitor, start):
    service = start()
    before = AtRest(service)
    resident = None
    for number in range(300):
        if number == 100:
            bluez.settle(limit=30)
            resident = service.resident()
        adapter = bluez.set_adapter(announce=True)
        device = bluez.set_device(announce=True)
        bluez.remove(device)
        bluez.remove(adapter)
    bluez.settle(limit=30)
    before.check()
    assert service.nodes() == ["master", "service"]
    assert service.resident() - resident < 2 * 1024
    # Each rule that was added for a device was removed with it.
    rules = [entry.member for entry in monitor.calls(bluez.agent[0]) if entry.member in ("AddMatch", "RemoveMatch")
             and PATH in entry.args[0]]
    assert rules == ["AddMatch", "RemoveMatch"] * 300


@pytest.mark.soak
def test_requests_of_every_kind_at_once(bluez, start):
    """Readers, watchers, scanners and pairers on two nodes, with BlueZ answering and objects changing meanwhile."""
    bluez.set_adapter()
    path = bluez.set_device(UUIDs=("as", ["0000110b-0000-1000-8000-00805f9b34fb"]))
    bluez.answer("Pair", Error("org.bluez.Error.AuthenticationFailed"))
    bluez.answer("StartDiscovery", Reply())
    service = start()
    before = AtRest(service)
    finished = threading.Event()
    problems = []

    def guarded(work):
        def loop():
            while not finished.is_set():
                try:
                    work()
                except (Closed, FileNotFoundError, ConnectionError):
                    pass
                except Exception as problem:  # pylint: disable=broad-except
                    problems.append(problem)
                    return
        return loop

    def read():
        with service.device() as client:
            assert client.value("ADDRESS") == "00:11:22:33:44:55"
            client.get("PROFILES")

    def scan():
        with service.adapter() as client:
            assert client.do("INQUIRY_START") in (0, FAILURE)
            assert client.do("INQUIRY_STOP") in (0, FAILURE)

    def pair():
        with service.device() as client:
            assert client.do("CONNECT", integer("TIMEOUT", 1000))[0] in (("RESULT", REFUSED), ("RESULT", 1))
            client.do("DISCONNECT", limit=10)

    def watch():
        with service.device() as client:
            client.watch()
            client.change()

    threads = [threading.Thread(target=guarded(work)) for work in (read, read, scan, pair, pair, watch)]
    for thread in threads:
        thread.start()
    began = time.monotonic()
    number = 0
    while time.monotonic() - began < stretched(4):
        number += 1
        bluez.properties_changed(path, {"Alias": ("s", f"name {number}")})
        if number % 50 == 0:
            bluez.settle()
    finished.set()
    ends = time.monotonic() + stretched(15)
    for thread in threads:
        # A watch that has just begun waits for one more change.
        while thread.is_alive() and time.monotonic() < ends:
            bluez.properties_changed(path, {"Alias": ("s", "one of the last")})
            thread.join(0.05)
    assert not problems, problems
    before.check()
