#!/usr/bin/python3
"""The tour of ./run on the real bluetoothd: tour.py OUT TOUR. What the tour prints goes to standard output."""

import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import worlds  # noqa: E402
from worlds.facts import KEYBOARD  # noqa: E402

from harness.process import BIN  # noqa: E402
from harness.waiting import wait_until  # noqa: E402


class Typist(threading.Thread):
    """Who sits at the keyboard: puts the first question away, since that pairing is cancelled, and answers the second."""

    def __init__(self, world):
        super().__init__(daemon=True)
        self._world = world

    def _shown(self, count):
        """The count-th pincode that bluetoothd had shown."""
        return self._world.monitor.wait(lambda call: call.member == "DisplayPinCode", "a pincode", count=count,
                                        limit=60).args[1]

    def run(self):
        self._shown(1)
        self._world.other_side.wait_asked()
        self._world.monitor.wait(lambda call: call.error_name == "org.bluez.Error.AuthenticationCanceled",
                                 "the end of the first pairing", limit=60)
        self._world.other_side.put_away()
        pincode = self._shown(2)
        self._world.other_side.wait_asked()
        time.sleep(1)  # as long as a person takes to type it
        self._world.other_side.type(pincode)


def main():
    out = pathlib.Path(sys.argv[1])
    world = worlds.make("bluetoothd", out)
    world.begin()
    world.prepare(KEYBOARD)
    root = tempfile.mkdtemp()
    environment = {**os.environ, "NODE_ROOT": root, "PATH": f"{BIN}:{os.environ['PATH']}"}
    log = out / "service.log"
    with open(log, "wb") as output:
        service = subprocess.Popen([BIN / "bluetooth-service"], env=environment, stdin=subprocess.DEVNULL,
                                   stdout=output, stderr=output)
    wait_until(pathlib.Path(root, "bluetooth/service").exists, "the service", limit=20)
    Typist(world).start()
    code = subprocess.run([sys.argv[2], "vm", log], env=environment, stdin=subprocess.DEVNULL, check=False).returncode
    service.terminate()
    service.wait(20)
    world.close()
    sys.exit(code)


if __name__ == "__main__":
    main()
