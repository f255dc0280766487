#!/usr/bin/python3
"""Sums up a run: verdict.py OUT WORLD... Each world's folder below OUT has what suite.py wrote there.

Prints what the suites printed, compares the bus calls of the simulator with those of bluetoothd, and ends with the one
line `N passed, N failed`: a scenario counts once for each world, and once for the comparison.
"""

import json
import pathlib
import re
import sys

from comparison import differences

DONE = re.compile(r"(ok  |FAIL) (\w+) \(")


class Results:
    """What the suites reported."""

    def __init__(self, folder, worlds):
        self.passed = self.failed = 0
        self.good = {"bluetoothd": set(), "simulator": set()}
        self.calls = {"bluetoothd": {}, "simulator": {}}
        for world in worlds:
            self._read(folder / world, "simulator" if world == "simulator" else "bluetoothd")

    def _read(self, folder, kind):
        log = folder / "suite.log"
        text = log.read_text(errors="replace") if log.exists() else ""
        print(f"== {kind} ({folder.name})")
        print(re.sub(r"^\d+ passed, \d+ failed\n", "", text, flags=re.MULTILINE), end="")
        for mark, name in DONE.findall(text):
            if mark == "FAIL":
                self.failed += 1
            else:
                self.passed += 1
                self.good[kind].add(name)
        if not re.search(r"^\d+ passed, \d+ failed$", text, flags=re.MULTILINE):
            self.failed += 1
            running = folder / "running"
            where = running.read_text().strip() if running.exists() else "no scenario"
            print(f"vm: {folder.name} did not get to its end; in {where}. What it said last:")
            console = folder / "console.log"
            print("".join(console.read_text(errors="replace").splitlines(True)[-10:]) if console.exists() else "")
        calls = folder / "calls.json"
        for line in calls.read_text().splitlines() if calls.exists() else []:
            scenario = json.loads(line)
            self.calls[kind][scenario["scenario"]] = scenario["calls"]

    def compare(self):
        print("== bus calls of the simulator's run beside those of bluetoothd's")
        for name in self.calls["bluetoothd"]:
            if name not in self.good["bluetoothd"] or name not in self.good["simulator"]:
                continue
            found = differences(self.calls["bluetoothd"][name], self.calls["simulator"][name])
            print(f"{'FAIL' if found else 'ok  '} {name}")
            if found:
                self.failed += 1
                print("\n".join(found))
            else:
                self.passed += 1


def main():
    results = Results(pathlib.Path(sys.argv[1]), sys.argv[2:])
    results.compare()
    print(f"{results.passed} passed, {results.failed} failed")
    sys.exit(1 if results.failed or not results.passed else 0)


if __name__ == "__main__":
    main()
