#!/usr/bin/python3
"""Runs the scenarios on one world: suite.py WORLD OUT [SCENARIO...]. Ends with a line `N passed, N failed`."""

import json
import pathlib
import sys
import tempfile
import time
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import worlds  # noqa: E402
from harness.process import Service  # noqa: E402
from scenarios import SCENARIOS  # noqa: E402


def run(name, function, world, out):
    """Runs one scenario; gives None, or what went wrong."""
    services = []

    def start(limit=20):
        root = tempfile.mkdtemp(prefix="nodes-")
        service = worlds.SuiteService(world.bus.address, root)
        services.append(service)
        return service.wait_ready(limit)

    problem = None
    world.begin()
    try:
        function(world, start)
    except Exception:  # pylint: disable=broad-except
        problem = traceback.format_exc()
    for service in services:
        try:
            service.end()
            service.check_clean()
        except Exception:  # pylint: disable=broad-except
            problem = (problem or "") + traceback.format_exc()
        with open(out / "service.log", "a", encoding="utf-8") as log:
            log.write(f"=== {name}\n{service.output()}\n{service.errors}")
    calls = world.service_calls()
    with open(out / "calls.json", "a", encoding="utf-8") as log:
        log.write(json.dumps({"scenario": name, "calls": calls}) + "\n")
    if problem is not None:
        world.recover()
        for service in services:
            problem += f"--- log of the service\n{service.output()}\n{service.errors}\n"
        problem += "--- bus calls of the service\n" + "\n".join(" ".join(call) for call in calls)
    return problem


def main():
    world_name, out = sys.argv[1], pathlib.Path(sys.argv[2])
    chosen = sys.argv[3:] or list(SCENARIOS)
    unknown = [name for name in chosen if name not in SCENARIOS]
    if unknown:
        sys.exit(f"no such scenario: {', '.join(unknown)}; there are: {', '.join(SCENARIOS)}")
    world = worlds.make(world_name, out)
    passed = failed = 0
    for name in chosen:
        function, only = SCENARIOS[name]
        if only and world.name not in only:
            continue
        began = time.monotonic()
        problem = run(name, function, world, out)
        mark = "ok  " if problem is None else "FAIL"
        print(f"{mark} {name} ({time.monotonic() - began:.1f} s)", flush=True)
        if problem is None:
            passed += 1
        else:
            failed += 1
            print(problem, flush=True)
    world.close()
    print(f"{passed} passed, {failed} failed", flush=True)
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
