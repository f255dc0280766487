"""Behind ./test: which runners make up a run, and their sum."""

import argparse
import os
import subprocess
import sys
import time

import runners
from runners import BUILD, FAILED, JOBS, ROOT, Count, say

SUPPRESSIONS = ROOT / "tests"
# How much slower the service is under a tool: it stretches the limits of the scenarios.
ASAN = {"ASAN_OPTIONS": "detect_stack_use_after_return=1:strict_string_checks=1",
        "UBSAN_OPTIONS": "print_stacktrace=1",
        "LSAN_OPTIONS": f"suppressions={SUPPRESSIONS}/lsan.supp:print_suppressions=0:fast_unwind_on_malloc=0",
        "BTN_SLOWNESS": "3"}
TSAN = {"TSAN_OPTIONS": f"second_deadlock_stack=1:suppressions={SUPPRESSIONS}/tsan.supp", "BTN_SLOWNESS": "5"}
VALGRIND = {"BTN_WRAPPER": "valgrind --quiet --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds="
                           f"definite --error-exitcode=99 --suppressions={SUPPRESSIONS}/valgrind.supp",
            "BTN_SLOWNESS": "20"}
FUZZ_SECONDS = 5


class Run:
    """Runs legs one after the other and adds up; what a leg needs and does not get is a failure, not the end."""

    def __init__(self):
        self.total = Count()
        self.legs = []

    def leg(self, name, *steps):
        """Steps run in order until one fails to build."""
        say(f"\n== {name}")
        began = time.monotonic()
        count = Count()
        for step in steps:
            result = step()
            count += result
            if result.failed and result.passed == 0:
                break
        self.legs.append((name, count, time.monotonic() - began))
        self.total += count

    def finish(self):
        say("\n== summary")
        for name, count, seconds in self.legs:
            say(f"{name:<34} {count}, {seconds:.0f} s")
        if self.total.skipped:
            say(f"{self.total.skipped} skipped")
        say(f"{self.total.passed} passed, {self.total.failed} failed")
        return 1 if self.total.failed else 0


def quick(run):
    run.leg("release: build and unit tests",
            lambda: runners.build("release", "-DBTN_TESTS=ON", "-DBTN_WERROR=ON"),
            lambda: runners.unit("release"))
    run.leg("release: scenarios", lambda: runners.scenarios("release"))


def full(run):
    run.leg("formatting", runners.formatting, runners.words)
    quick(run)
    run.leg("bluetoothd in a virtual machine",
            lambda: runners.summary_of([ROOT / "tests/vm/run"], "vm.log"))
    run.leg("valgrind: short scenarios",
            lambda: runners.scenarios("release", "-m", "short", env=VALGRIND, workers=JOBS, name="valgrind"))
    run.leg("asan: build and unit tests", lambda: runners.build("asan"), lambda: runners.unit("asan", ASAN))
    run.leg("asan: scenarios", lambda: runners.scenarios("asan", env=ASAN))
    run.leg("tsan: build and unit tests", lambda: runners.build("tsan"), lambda: runners.unit("tsan", TSAN))
    run.leg("tsan: scenarios", lambda: runners.scenarios("tsan", env=TSAN))
    run.leg("clang: build, clang-tidy", lambda: runners.build("clang", "-DBTN_TESTS=OFF"),
            lambda: runners.clang_tidy("clang"))
    run.leg("fuzzers", lambda: runners.build("fuzz", targets=["fuzzers"]),
            lambda: runners.fuzzers("fuzz", FUZZ_SECONDS, ASAN))


def repeat(run, times, name):
    """The tests that hold the name, in the unit tests and in the scenarios, with the release build."""
    run.leg("build", lambda: runners.build("release", "-DBTN_TESTS=ON"))
    if run.total.failed:
        return
    found = False
    for program in sorted((BUILD / "release/bin").glob("unit-*")):
        listed = subprocess.run([program, "--gtest_list_tests", f"--gtest_filter=*{name}*"], check=False,
                                capture_output=True, text=True)
        if listed.returncode == 0 and any(line.startswith("  ") for line in listed.stdout.splitlines()):
            found = True
            run.leg(program.name, lambda program=program: repeated(program, times, name))
    collected = subprocess.run(["/usr/bin/python3", "-m", "pytest", "-q", "--collect-only", "-k", name],
                               cwd=ROOT / "tests/scenario", check=False, capture_output=True, text=True)
    if collected.returncode == 0:
        found = True
        run.leg("scenarios", lambda: runners.scenarios("release", "-k", name, "--rounds", str(times)))
    if not found:
        run.leg(f"no test holds '{name}' in its name", lambda: FAILED)


def repeated(program, times, name):
    log = f"{program.name}-repeated.log"
    code = runners.run([program, f"--gtest_filter=*{name}*", f"--gtest_repeat={times}", "--gtest_shuffle",
                        "--gtest_brief=1"], log)
    if code:
        runners.show_log(log)
    return Count(failed=1) if code else Count(passed=times)


def main():
    parser = argparse.ArgumentParser(prog="./test", description="Builds and tests.")
    parser.add_argument("--full", action="store_true", help="everything, as on the machines that watch over changes")
    parser.add_argument("--repeat", nargs=2, metavar=("N", "NAME"), help="the tests whose name holds NAME, N times")
    options = parser.parse_args()
    os.chdir(ROOT)
    run = Run()
    if options.repeat:
        repeat(run, int(options.repeat[0]), options.repeat[1])
    elif options.full:
        full(run)
    else:
        quick(run)
    return run.finish()


if __name__ == "__main__":
    sys.exit(main())
