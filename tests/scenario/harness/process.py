"""The programs as processes: the service with its log, and whatever else a test starts."""

import collections
import contextlib
import dataclasses
import datetime
import fcntl
import grp
import os
import pathlib
import re
import select
import shlex
import signal
import struct
import subprocess
import termios
import threading
import time

from . import varlink
from .waiting import LIMIT, SLOWNESS, Record, TimedOut, stretched, wait_until

ROOT = pathlib.Path(__file__).resolve().parents[3]
BIN = pathlib.Path(os.environ.get("BTN_BIN", ROOT / "build/release/bin"))
# A program to run the service in, valgrind for one.
WRAPPER = shlex.split(os.environ.get("BTN_WRAPPER", ""))

READY = "Service successfully initialized"

LINE = re.compile(r"(?P<time>\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z) \[(?P<level>\d+)\] "
                  r"(?P<process>[^/ ]*)/(?P<thread>[^ ]*) (?P<filter>[^ :]+): (?P<text>.*)")
# What the sanitizers write when they found something.
FINDINGS = re.compile(r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|runtime error:|terminate called|Assertion .*failed")


@dataclasses.dataclass
class Line:
    """A line of the log and when it was read."""

    raw: str
    seen: float
    time: datetime.datetime | None = None
    level: int | None = None
    process: str | None = None
    thread: str | None = None
    filter: str | None = None
    text: str | None = None

    @staticmethod
    def parse(raw):
        line = Line(raw, time.monotonic())
        found = LINE.fullmatch(raw)
        if found:
            line.time = datetime.datetime.strptime(found["time"], "%Y-%m-%dT%H:%M:%S.%fZ")
            line.level = int(found["level"])
            line.process, line.thread = found["process"], found["thread"]
            line.filter, line.text = found["filter"], found["text"]
        return line


class Process:
    """A process whose output is read as it comes."""

    def __init__(self, command, env, **kwargs):
        self.command = [str(word) for word in command]
        self.lines = Record()
        self._errors = []
        self._reading = threading.Lock()
        kwargs.setdefault("stdin", subprocess.DEVNULL)
        self.popen = subprocess.Popen(self.command, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **kwargs)
        self._readers = [threading.Thread(target=self._read_output, daemon=True),
                         threading.Thread(target=self._read_errors, daemon=True)]
        for reader in self._readers:
            reader.start()

    def _read_output(self):
        output = self.popen.stdout.fileno()
        ready = select.poll()
        ready.register(output, select.POLLIN)
        pending = b""
        while True:
            ready.poll()
            # Read and recorded in one step: where nothing is left to read, everything written is recorded.
            with self._reading:
                data = os.read(output, 65536)
                if not data:
                    break
                *lines, pending = (pending + data).split(b"\n")
                for raw in lines:
                    self.lines.add(Line.parse(raw.decode("utf-8", "backslashreplace")))
        if pending:
            self.lines.add(Line.parse(pending.decode("utf-8", "backslashreplace")))
        self.lines.close()

    def sync(self):
        """Returns when everything that was written so far has been recorded."""
        def read():
            with self._reading:
                if self.popen.stdout.closed:
                    return True
                left = fcntl.ioctl(self.popen.stdout, termios.FIONREAD, b"\0" * 4)
                return struct.unpack("i", left)[0] == 0
        wait_until(read, "an empty pipe")

    def logged(self, start=0):
        """The lines written so far, from the start-th on."""
        self.sync()
        return self.lines.all(start)

    def mark(self):
        """How many lines were written so far."""
        return len(self.logged())

    def _read_errors(self):
        for raw in self.popen.stderr:
            self._errors.append(raw.decode("utf-8", "backslashreplace"))

    @property
    def pid(self):
        return self.popen.pid

    @property
    def running(self):
        return self.popen.poll() is None

    @property
    def errors(self):
        return "".join(self._errors)

    def output(self):
        return "\n".join(line.raw for line in self.lines.all())

    def send_signal(self, number):
        self.popen.send_signal(number)

    def wait(self, limit=LIMIT):
        """The exit code; everything that was written has been read then."""
        try:
            code = self.popen.wait(stretched(limit))
        except subprocess.TimeoutExpired:
            raise TimedOut(f"expected {self.command[-1]} to end within {stretched(limit):g} s") from None
        for reader in self._readers:
            reader.join(stretched(LIMIT))
        return code

    def end(self):
        """Ends it if it still runs, however it takes."""
        if self.running:
            self.send_signal(signal.SIGTERM)
            try:
                self.wait(5)
            except TimedOut:
                self.send_signal(signal.SIGKILL)
                self.wait()
                raise
        for stream in (self.popen.stdout, self.popen.stderr):
            with contextlib.suppress(OSError):
                stream.close()


class Service(Process):
    """bluetooth-service on a bus and a root of its own."""

    def __init__(self, address, root, env=None, prefix=(), **kwargs):
        self.root = pathlib.Path(root)
        self.began = time.monotonic()
        environment = {key: value for key, value in os.environ.items()
                       if key in ("PATH", "HOME", "LANG") or key.endswith("SAN_OPTIONS")}
        environment["DBUS_SYSTEM_BUS_ADDRESS"] = address
        environment["NODE_ROOT"] = str(root)
        environment.update(env or {})
        environment = {key: value for key, value in environment.items() if value is not None}
        super().__init__([*prefix, *WRAPPER, BIN / "bluetooth-service"], environment, **kwargs)

    # The log

    def texts(self, level=None):
        return [line.text for line in self.logged() if level in (None, line.level)]

    def wait_log(self, text, level=None, count=1, start=0, limit=LIMIT):
        """The count-th line of exactly this text (or matching the pattern), of this level."""
        def matches(line):
            if line.text is None or level not in (None, line.level):
                return False
            return text.fullmatch(line.text) if isinstance(text, re.Pattern) else line.text == text
        shown = text.pattern if isinstance(text, re.Pattern) else text
        kind = "" if level is None else f" of level {level}"
        return self.lines.wait(matches, f'a log line{kind} "{shown}"', count=count, start=start, limit=limit)

    def wait_ready(self, limit=LIMIT):
        self.wait_log(READY, level=1, limit=limit)
        return self

    def expect_log(self, *expected):
        """The log holds these (level, text) lines in this order, others in between allowed."""
        rest = iter([(line.level, line.text) for line in self.logged()])
        for line in expected:
            assert line in rest, f"expected in this order: {expected}; missing from here: {line}"

    # The nodes

    def node(self, name):
        return self.root / "bluetooth" / name

    def adapter_node(self, address="00:1A:7D:DA:71:13"):
        return self.node(f"adapters/{address}/adapter")

    def device_node(self, address="00:11:22:33:44:55"):
        return self.node(f"devices/{address}/device")

    def nodes(self):
        """Every file below the root's bluetooth folder, by name."""
        base = self.root / "bluetooth"
        return sorted(str(path.relative_to(base)) for path in base.rglob("*") if not path.is_dir())

    def open(self, name):
        return varlink.Client(str(self.node(name)))

    def adapter(self, address="00:1A:7D:DA:71:13"):
        return varlink.Client(str(self.adapter_node(address)))

    def device(self, address="00:11:22:33:44:55"):
        return varlink.Client(str(self.device_node(address)))

    def master(self):
        return self.open("master")

    def control(self):
        return self.open("service")

    def wait_node(self, path, limit=LIMIT):
        wait_until(path.exists, f"the node {path}", limit)

    def wait_gone(self, path, limit=LIMIT):
        wait_until(lambda: not path.exists(), f"no node {path}", limit)

    def stop(self, limit=LIMIT):
        """STOP by a client; gives the exit code."""
        with self.control() as client:
            assert client.do("STOP") == varlink.SUCCESS
        return self.wait(limit)

    # The process

    def descriptors(self):
        """How many descriptors it has of each kind: sockets, pipes, files by name."""
        folder = f"/proc/{self.pid}/fd"
        found = collections.Counter()
        for name in os.listdir(folder):
            with contextlib.suppress(FileNotFoundError):
                found[re.sub(r":\[\d+\]$", "", os.readlink(f"{folder}/{name}"))] += 1
        return dict(found)

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def status(self, field):
        with open(f"/proc/{self.pid}/status", encoding="ascii", errors="replace") as status:
            for line in status:
                if line.startswith(field + ":"):
                    return line.split(":", 1)[1].strip()
        raise KeyError(field)

    def resident(self):
        """Resident memory in KiB; the same all the time where a tool that keeps memory of its own makes it no measure."""
        return int(self.status("VmRSS").split()[0]) if SLOWNESS == 1 else 0

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii", errors="replace") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def _sleepers(self):
        """How often each thread went to sleep so far, or None when one is not asleep."""
        counts = {}
        for task in os.listdir(f"/proc/{self.pid}/task"):
            try:
                with open(f"/proc/{self.pid}/task/{task}/status", encoding="ascii", errors="replace") as status:
                    fields = dict(line.split(":", 1) for line in status)
            except (FileNotFoundError, ProcessLookupError):
                return None
            if not fields["State"].strip().startswith("S"):
                return None
            counts[task] = fields["voluntary_ctxt_switches"]
        return counts

    def wait_asleep(self, client):
        """Waits until the service has taken what the client sent and every one of its threads sleeps.

        So a request that has no answer yet is known to wait for something. Two looks between which no thread went to
        sleep once more have nothing in between.
        """
        def asleep():
            if client.unread():
                return False
            before = self._sleepers()
            return before is not None and before == self._sleepers()
        wait_until(asleep, "a service that has taken the request and waits")

    def check_clean(self):
        """No sanitizer found anything, nothing was written past the log, every line is a whole record."""
        assert not FINDINGS.search(self.errors), f"the service's own checks failed:\n{self.errors}"
        stray = [line.raw for line in self.lines.all() if line.text is None]
        assert not stray, f"lines that are no records: {stray}"


class AtRest:
    """What the service holds when nothing goes on, to be found again later."""

    def __init__(self, service):
        self._service = service
        with service.control() as client:
            client.describe()
            service.wait_asleep(client)
            self._descriptors = service.descriptors()
        self._descriptors["socket"] -= 1

    def check(self, threads=64):
        """Waits for the same descriptors, and for no more threads than these."""
        def same():
            return self._service.descriptors() == self._descriptors
        try:
            wait_until(same, "the descriptors of before")
        except TimedOut:
            assert self._service.descriptors() == self._descriptors
        wait_until(lambda: self._service.threads() <= threads, f"at most {threads} threads", limit=30)


def bluetooth_group():
    """The id of the group that nodes belong to, or None where there is no such group."""
    try:
        return grp.getgrnam("bluetooth").gr_gid
    except KeyError:
        return None
