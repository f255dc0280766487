"""The runners behind ./test: each does one thing, prints what matters of it and gives its count."""

import concurrent.futures
import dataclasses
import json
import os
import pathlib
import shlex
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import xml.etree.ElementTree as ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
LOGS = BUILD / "test-logs"
JOBS = os.cpu_count() or 2


@dataclasses.dataclass
class Count:
    passed: int = 0
    failed: int = 0
    skipped: int = 0

    def __add__(self, other):
        return Count(self.passed + other.passed, self.failed + other.failed, self.skipped + other.skipped)

    def __str__(self):
        skipped = f", {self.skipped} skipped" if self.skipped else ""
        return f"{self.passed} passed, {self.failed} failed{skipped}"


PASSED = Count(passed=1)
FAILED = Count(failed=1)


def say(text=""):
    print(text, flush=True)


def run(command, log, env=None, cwd=ROOT, show=False, limit=3600):
    """Runs a command with its output in a log; shows it too where asked. Gives the exit code (124: over the limit)."""
    LOGS.mkdir(parents=True, exist_ok=True)
    environment = {**os.environ, "PYTHONDONTWRITEBYTECODE": "1", **(env or {})}
    with open(LOGS / log, "ab") as file:
        file.write(f"$ {shlex.join(map(str, command))}\n".encode())
        file.flush()
        process = subprocess.Popen([str(word) for word in command], cwd=cwd, env=environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        over = threading.Event()
        watchdog = threading.Timer(limit, lambda: (over.set(), process.kill()))
        watchdog.start()
        try:
            for line in process.stdout:
                file.write(line)
                file.flush()
                if show:
                    sys.stdout.buffer.write(line)
                    sys.stdout.flush()
            code = process.wait()
        finally:
            watchdog.cancel()
            process.kill()
    return 124 if over.is_set() else code


def show_log(log, lines=60):
    """The end of a log, for what failed."""
    text = (LOGS / log).read_text(errors="replace").splitlines()
    say(f"--- the end of {(LOGS / log).relative_to(ROOT)}")
    for line in text[-lines:]:
        say(line)
    say("---")


def build(preset, *options, targets=()):
    """Configures and builds a preset; one check that counts only when it fails."""
    log = f"{preset}-build.log"
    (LOGS / log).unlink(missing_ok=True)
    began = time.monotonic()
    code = run(["cmake", "--preset", preset, *options], log)
    if code == 0:
        arguments = ["--target", *targets] if targets else []
        # -k 0: all that is wrong at once, not one file a run.
        code = run(["cmake", "--build", "--preset", preset, "-j", JOBS, *arguments, "--", "-k", "0"], log)
    if code != 0:
        show_log(log)
        return FAILED
    say(f"built in {time.monotonic() - began:.0f} s")
    return Count()


def unit(preset, env=None):
    """The unit tests of a build through ctest; counts single tests, not programs."""
    reports = BUILD / preset / "test-reports"
    shutil.rmtree(reports, ignore_errors=True)
    (reports / "gtest").mkdir(parents=True)
    log = f"{preset}-unit.log"
    (LOGS / log).unlink(missing_ok=True)
    code = run(["ctest", "--test-dir", BUILD / preset, "--parallel", JOBS, "--output-on-failure", "--timeout", 600,
                "--no-tests=error", "--output-junit", reports / "ctest.xml"], log, show=True,
               env={"GTEST_OUTPUT": f"xml:{reports}/gtest/", **(env or {})})
    count = Count()
    broken = set()
    for report in (reports / "gtest").glob("*.xml"):
        suites = ElementTree.parse(report).getroot()
        total, failed = int(suites.get("tests")), int(suites.get("failures")) + int(suites.get("errors"))
        skipped = len(suites.findall(".//skipped")) + int(suites.get("disabled", 0))
        count += Count(total - failed - skipped, failed, skipped)
        if failed:
            broken.add(report.stem)
    # A program that crashed or hung left no report of its own, or one that says all was well.
    if (reports / "ctest.xml").exists():
        for case in ElementTree.parse(reports / "ctest.xml").getroot().iter("testcase"):
            if case.get("status") == "fail" and case.get("name") not in broken:
                count += FAILED
    if code != 0 and count.failed == 0:
        count += FAILED
    say(f"unit tests: {count}")
    return count


def scenarios(preset, *arguments, env=None, workers=4, name="scenarios"):
    """The scenarios with the programs of a build; the name is for its log and report."""
    report = BUILD / preset / f"test-reports/{name}.xml"
    report.parent.mkdir(parents=True, exist_ok=True)
    report.unlink(missing_ok=True)
    log = f"{preset}-{name}.log"
    (LOGS / log).unlink(missing_ok=True)
    parallel = ["-n", str(workers)] if workers > 1 else []
    code = run(["/usr/bin/python3", "-m", "pytest", "-q", "-rs", *parallel, f"--junitxml={report}", *arguments],
               log, cwd=ROOT / "tests/scenario", show=True,
               env={"BTN_BIN": str(BUILD / preset / "bin"), **(env or {})})
    return pytest_count(report, code)


def pytest_count(report, code):
    if not report.exists():
        return FAILED
    count = Count()
    for suite in ElementTree.parse(report).getroot().iter("testsuite"):
        total, skipped = int(suite.get("tests")), int(suite.get("skipped"))
        failed = int(suite.get("failures")) + int(suite.get("errors"))
        count += Count(max(total - failed - skipped, 0), failed, skipped)
    if code != 0 and count.failed == 0:
        count += FAILED
    return count


def sources(*folders, headers=True):
    """The C++ files of the project that git knows, in these folders or in all."""
    patterns = ["*.cpp", "*.h"] if headers else ["*.cpp"]
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", *patterns],
                            cwd=ROOT, check=True, capture_output=True, text=True).stdout.split()
    return [name for name in listed if (ROOT / name).exists() and
            (not folders or name.split("/", 1)[0] in folders)]


def formatting():
    code = run(["clang-format", "--dry-run", "-Werror", *sources()], "format.log")
    if code != 0:
        show_log("format.log", 30)
        say("clang-format would change files: clang-format -i $(git ls-files '*.cpp' '*.h')")
        return FAILED
    say("clang-format: nothing to change")
    return PASSED


# What nobody leaves in what is finished: notes to oneself, paths of one's own machine, halves of a merge.
UNFINISHED = r"\b([T]ODO|[F]IXME|[X]XX|[W]IP)\b|/[w]ork/|/[h]ome/|^(<{7}|>{7}) |[D]O NOT (COMMIT|MERGE)"


def words():
    """No text file that git knows holds a word of UNFINISHED."""
    # 1: there is none.
    log = "words.log"
    (LOGS / log).unlink(missing_ok=True)
    if run(["git", "grep", "--untracked", "-nIP", UNFINISHED], log) != 1:
        show_log(log, 30)
        say("words that a finished product does not contain")
        return FAILED
    say("words: none that is left over")
    return PASSED


# What is analysed: the product. The tests are held to the compilers' warnings.
ANALYSED = {"platform", "service", "adapters", "devices", "agent", "client", "simulator"}


def clang_tidy(preset):
    """clang-tidy on each file of the product; a file with a finding is one failure."""
    with open(BUILD / preset / "compile_commands.json", encoding="utf-8") as commands:
        files = sorted({str(pathlib.Path(entry["file"]).relative_to(ROOT)) for entry in json.load(commands)
                        if pathlib.Path(entry["file"]).is_relative_to(ROOT)})
    files = [file for file in files if file.split("/", 1)[0] in ANALYSED]

    def check(file):
        return file, subprocess.run(["clang-tidy", "--quiet", "-p", BUILD / preset, file], cwd=ROOT,
                                    capture_output=True, text=True, check=False)

    count = Count()
    began = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        for file, result in pool.map(check, files):
            clean = result.returncode == 0 and "warning:" not in result.stdout
            count += PASSED if clean else FAILED
            if not clean:
                say(result.stdout + result.stderr)
    say(f"clang-tidy: {count} in {time.monotonic() - began:.0f} s")
    return count


def fuzzers(preset, seconds, env=None):
    """Runs every fuzzer of a build for some seconds, from its corpus; the input of a failure is kept in the build."""
    count = Count()
    findings = BUILD / preset / "findings"
    findings.mkdir(exist_ok=True)
    for fuzzer in sorted((BUILD / preset / "bin").glob("fuzz-*")):
        log = f"{fuzzer.name}.log"
        (LOGS / log).unlink(missing_ok=True)
        with tempfile.TemporaryDirectory() as new:
            code = run([fuzzer, f"-max_total_time={seconds}", "-timeout=10", "-rss_limit_mb=2048",
                        f"-artifact_prefix={findings}/{fuzzer.name}-", new, ROOT / "tests/fuzz/corpus" / fuzzer.name],
                       log, env=env, limit=seconds + 60)
        if code != 0:
            show_log(log)
        count += FAILED if code else PASSED
        say(f"{fuzzer.name}: {'failed' if code else f'nothing found in {seconds} s'}")
    return count


def summary_of(command, log):
    """Another runner of the project, whose last line is `N passed, N failed`."""
    (LOGS / log).unlink(missing_ok=True)
    code = run(command, log, show=True)
    last = (LOGS / log).read_text(errors="replace").strip().splitlines()[-1]
    words = last.replace(",", "").split()
    try:
        numbers = dict(zip(words[1::2], map(int, words[0::2])))
        count = Count(numbers["passed"], numbers["failed"], numbers.get("skipped", 0))
    except (KeyError, ValueError):
        return FAILED
    return count + FAILED if code and not count.failed else count
