#!/usr/bin/python3
"""How long it takes until the pincode is on the screen, with the real bluetoothd: pincode.py OUT [ROUNDS].

Runs in the virtual machine. Four ways in turn, round after round; each begins with a device that has just been found and ends
with the pincode read by whoever started it. Prints one line for each way: the median and all times, in milliseconds.
"""

import contextlib
import os
import pathlib
import pty
import re
import select
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import worlds  # noqa: E402
from worlds.facts import ADAPTER, DEVICE, KEYBOARD, SECOND, SECOND_PATH  # noqa: E402

from harness.process import BIN, Service  # noqa: E402
from harness.varlink import integer  # noqa: E402

LIMIT = 30


class Screen:
    """A program at a terminal, and what it writes there."""

    def __init__(self, command, env=None):
        self._terminal, side = pty.openpty()
        self._process = subprocess.Popen(command, stdin=side, stdout=side, stderr=side, start_new_session=True,
                                         env={**os.environ, "TERM": "dumb", **(env or {})})
        os.close(side)
        self._text = ""

    def type(self, line):
        os.write(self._terminal, line.encode() + b"\n")

    def wait(self, pattern):
        """Returns when the pattern is on the screen, behind what was waited for before."""
        deadline = time.monotonic() + LIMIT
        while not (found := re.search(pattern, self._text)):
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self._terminal], [], [], left)[0]:
                raise AssertionError(f"{pattern} did not come within {LIMIT} s; on the screen: {self._text!r}")
            self._text += os.read(self._terminal, 4096).decode(errors="replace")
        self._text = self._text[found.end():]

    def close(self):
        self._process.terminate()
        try:
            self._process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait(LIMIT)
        os.close(self._terminal)


class Measurement:
    """The ways; each gives the seconds it took, and leaves the pairing as it was begun."""

    def __init__(self, world, service):
        self._world = world
        self._service = service

    def find(self):
        self._world.call("/org/bluez/hci0", ADAPTER, "StartDiscovery")
        self._world.wait(lambda: self._world.property(SECOND_PATH, DEVICE, "Address"), "the device")
        self._world.call("/org/bluez/hci0", ADAPTER, "StopDiscovery")
        self._service.wait_node(self._service.device_node(SECOND), limit=LIMIT)

    def forget(self):
        """After the pairing was ended by its owner."""
        self._world.other_side.put_away()
        self._world.remove_device()
        self._world.wait_apart()
        self._service.wait_gone(self._service.device_node(SECOND), limit=LIMIT)

    def request(self):
        with self._service.device(SECOND) as device:
            began = time.monotonic()
            answer = dict(device.do("CONNECT", integer("timeout", 60000), limit=LIMIT))
            took = time.monotonic() - began
            assert answer["RESULT"] == 1, answer
            self._world.other_side.wait_asked()
            device.do("DISCONNECT", limit=LIMIT)
        return took

    def btnode(self):
        began = time.monotonic()
        screen = Screen([BIN / "btnode", "pair", SECOND], {"NODE_ROOT": str(self._service.root)})
        with contextlib.closing(screen):
            screen.wait(r"\b\d{6}\b")
            took = time.monotonic() - began
            self._world.other_side.wait_asked()
        return took

    def bluetoothctl(self):
        return self._bluetoothctl()[0]

    def session(self):
        return self._bluetoothctl()[1]

    def _bluetoothctl(self):
        """Seconds since its start and since the command, which it takes when its agent is registered."""
        began = time.monotonic()
        screen = Screen(["bluetoothctl", "--agent", "DisplayOnly"])
        with contextlib.closing(screen):
            screen.wait("Agent registered")
            typed = time.monotonic()
            screen.type(f"pair {SECOND}")
            screen.wait(r"PIN code: \d{6}")
            shown = time.monotonic()
            self._world.other_side.wait_asked()
        return shown - began, shown - typed


WAYS = {"request": "CONNECT on an open connection", "session": "pair in a running bluetoothctl",
        "btnode": "btnode pair, from its start", "bluetoothctl": "bluetoothctl and pair, from its start"}


def main():
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 7
    world = worlds.make("bluetoothd", sys.argv[1])
    world.begin()
    world.prepare(KEYBOARD)
    service = Service(world.bus.address, tempfile.mkdtemp()).wait_ready(LIMIT)
    measurement = Measurement(world, service)
    times = {way: [] for way in WAYS}
    for _ in range(rounds):
        for way in WAYS:
            measurement.find()
            times[way].append(getattr(measurement, way)() * 1000)
            measurement.forget()
    for way, text in WAYS.items():
        print(f"{text:<38} median {statistics.median(times[way]):6.1f} ms of",
              " ".join(f"{time:.0f}" for time in times[way]), flush=True)
    service.end()
    world.close()


if __name__ == "__main__":
    main()
