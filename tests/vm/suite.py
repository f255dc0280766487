#!/usr/bin/python3
"""Runs the scenarios on one world: suite.py WORLD OUT [SCENARIO...]. Ends with a line `N passed, N failed`.

suite.py list WORLD [SCENARIO...] only prints the names of those that can run on it, one a line.
"""

import array
import fcntl
import json
import pathlib
import sys
import tempfile
import termios
import time
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import worlds  # noqa: E402
from harness.process import Service  # noqa: E402
from harness.waiting import wait_until  # noqa: E402
from scenarios import SCENARIOS  # noqa: E402


class SuiteService(Service):
    """The service, with what the suite wants to know of it."""

    def wait_waiting(self, client):
        """Returns when the service has read what the client sent."""
        unread = array.array("i", [0])

        def taken():
            fcntl.ioctl(client.socket.fileno(), termios.TIOCOUTQ, unread)
            return unread[0] == 0

        wait_until(taken, "the service to read the call")


class Run:
    """One scenario: a BlueZ of its own, any number of services."""

    def __init__(self, name, world, out):
        self.name = name
        self._world = world
        self._out = out
        self._services = []
        self._problems = []
        # What of the world itself broke down, so that the scenario says nothing of the service.
        self.broken = ""
        self._folder = tempfile.TemporaryDirectory(prefix="nodes-", ignore_cleanup_errors=True)

    def start(self):
        """Starts a service and gives it when it is ready."""
        root = tempfile.mkdtemp(dir=self._folder.name)
        service = SuiteService(self._world.bus.address, root)
        self._services.append(service)
        return service.wait_ready(limit=20)

    def _attempt(self, function, *arguments):
        try:
            return function(*arguments)
        except Exception:  # pylint: disable=broad-except
            self._problems.append(traceback.format_exc())
            return None

    def go(self, function):
        """Runs it and writes the logs; gives what went wrong, nothing when all was well."""
        self._world.begin()
        self._attempt(function, self._world, self.start)
        if not self._problems and any(service.running for service in self._services):
            self._attempt(self._world.wait_answered)
        for service in self._services:
            self._attempt(service.end)
            self._attempt(service.check_clean)
        calls = self._attempt(self._world.calls) or []
        services = "".join(f"{service.output()}\n{service.errors}" for service in self._services)
        self._write("service.log", f"=== {self.name}\n{services}")
        self._write("bus.log", "\n".join([f"=== {self.name}", *map(str, self._world.messages())]) + "\n")
        self._write("calls.json", json.dumps({"scenario": self.name, "calls": calls}) + "\n")
        self._folder.cleanup()
        self.broken = self._world.broken()
        if not self._problems:
            return ""
        asked = "".join(" ".join(call) + "\n" for call in calls)
        return "".join(self._problems) + f"--- log of the service\n{services}--- bus calls\n{asked}"

    def _write(self, name, text):
        with open(self._out / name, "a", encoding="utf-8") as log:
            log.write(text)


def choose(world, names):
    """The scenarios of these names, or all, that can run on a world."""
    unknown = [name for name in names if name not in SCENARIOS]
    if unknown:
        sys.exit(f"no such scenario: {', '.join(unknown)}; there are:\n  " + "\n  ".join(SCENARIOS))
    return [name for name in names or SCENARIOS if not SCENARIOS[name][1] or world in SCENARIOS[name][1]]


def main():
    if sys.argv[1] == "list":
        print("\n".join(choose(sys.argv[2], sys.argv[3:])))
        return
    name, out = sys.argv[1], pathlib.Path(sys.argv[2])
    chosen = choose(name, sys.argv[3:])
    out.mkdir(parents=True, exist_ok=True)
    world = worlds.make(name, out)
    passed = failed = 0
    for name in chosen:
        (out / "running").write_text(name + "\n")
        began = time.monotonic()
        run = Run(name, world, out)
        problem = run.go(SCENARIOS[name][0])
        if problem and run.broken:
            print(f"again {name}: {run.broken}", flush=True)
            problem = Run(name, world, out).go(SCENARIOS[name][0])
        print(f"{'FAIL' if problem else 'ok  '} {name} ({time.monotonic() - began:.1f} s)", flush=True)
        if problem:
            failed += 1
            print(problem, flush=True)
        else:
            passed += 1
    (out / "running").unlink()
    world.close()
    print(f"{passed} passed, {failed} failed", flush=True)
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
