"""Words that the scenarios share."""

import threading
import time

from worlds.facts import FIRST, SECOND

from harness.varlink import SUCCESS, action, integer

SCENARIOS = {}

# A pincode typed within half a second of the question was not typed by a person: bluetoothd then takes the keyboard for
# one with a fixed code of its own, should the code be wrong.
HUMAN = 0.8


def scenario(*worlds):
    """Registers a scenario; worlds are the names of those it can run on, all when none is named."""
    def register(function):
        SCENARIOS[function.__name__] = (function, worlds)
        return function
    return register


def find(service):
    """An inquiry on the first controller that finds the second one; gives its node as a client."""
    with service.adapter(FIRST) as adapter:
        assert adapter.do("INQUIRY_START") == SUCCESS
        service.wait_node(service.device_node(SECOND), limit=20)
        assert adapter.do("INQUIRY_STOP") == SUCCESS
    return service.device(SECOND)


def find_again(service, world):
    """BlueZ forgets a device whose pairing failed, and the next inquiry finds it anew."""
    service.wait_gone(service.device_node(SECOND), limit=20)
    # A pairing that begins while the last one's link still goes down, or its question is still open, is lost with it.
    world.other_side.put_away()
    world.wait_apart()
    return find(service)


def connect(device):
    """CONNECT; gives the pincode to type, None when the pairing ended well at once."""
    answer = dict(device.do("CONNECT", integer("timeout", 25000), limit=20))
    if answer["RESULT"] == 1:
        assert len(answer["PINCODE"]) == 6 and answer["PINCODE"].isdigit(), answer
        return answer["PINCODE"]
    assert answer == {"RESULT": SUCCESS}, answer
    return None


class Waiting:
    """A request that is under way: it has been sent, and a thread waits for its answer."""

    def __init__(self, client, name, *options):
        self._result = None
        self._error = None
        self._thread = threading.Thread(target=self._run, args=(client, name), daemon=True)
        client.send_execute(action(name, *options))
        self._thread.start()

    def _run(self, client, name):
        try:
            self._result = client.done(name, limit=10)
        except Exception as error:  # pylint: disable=broad-except
            self._error = error

    def result(self):
        self._thread.join()
        if self._error is not None:
            raise self._error
        return self._result


def fail_as_a_person(world, pincode):
    """Types a wrong pincode, or rejects when there is none."""
    world.other_side.wait_asked()
    time.sleep(HUMAN)
    world.other_side.fail_with(pincode)


def pair(service, world, device):
    """The whole road: the pincode is shown, the user types it, WAIT_CONNECTED says paired."""
    world.other_side.type(...)
    pincode = connect(device)
    world.other_side.wait_asked()
    world.other_side.type(pincode)
    with service.device(SECOND) as waiter:
        assert waiter.do("WAIT_CONNECTED", integer("timeout", 20000), limit=30) == SUCCESS
    assert device.value("STATUS") == 3


def pair_again(service, world):
    """The device, found anew, is unpaired and can be paired."""
    with find_again(service, world) as device:
        assert device.value("STATUS") == 1
        pair(service, world, device)


def profiles(device, attribute="PROFILES"):
    return [number for _, number in device.value(attribute)]
