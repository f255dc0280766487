"""Fixtures: each test has a bus, a BlueZ, a root and a service of its own, and nothing of them is left after it."""

import shutil
import signal
import tempfile
import pathlib

import pytest

from harness.bluez import FakeBluez
from harness.dbus import Monitor, PrivateBus
from harness.process import BIN, Service


def pytest_configure(config):
    if not (BIN / "bluetooth-service").exists():
        raise pytest.UsageError(f"no bluetooth-service in {BIN}: build it first (./test does), or set BTN_BIN")
    # A shell that starts the tests in the background has SIGINT ignored, and so would every program under test.
    signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failure shows what the service wrote and what BlueZ was asked."""
    report = (yield).get_result()
    if report.failed:
        for service in getattr(item, "services", []):
            state = "running" if service.running else f"ended with {service.popen.returncode}"
            report.sections.append((f"log of service {service.pid} ({state})", _end(service.output())))
            if service.errors:
                report.sections.append((f"standard error of service {service.pid}", _end(service.errors)))
        for bluez in getattr(item, "fakes", []):
            calls = "\n".join(str(entry) for entry in bluez.calls.all())
            report.sections.append(("bus calls to BlueZ", _end(calls)))


def _end(text, lines=100):
    """The last lines of a text, and how many there are before them."""
    every = text.splitlines()
    more = [f"({len(every) - lines} lines before these)"] if len(every) > lines else []
    return "\n".join(more + every[-lines:])


@pytest.fixture
def folder():
    """A folder with a short name (a socket's name has room for 107 characters), gone after the test."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="btn-"))
    yield path
    shutil.rmtree(path, ignore_errors=True)


@pytest.fixture
def bus(folder):
    daemon = PrivateBus(folder)
    yield daemon
    daemon.stop()


@pytest.fixture
def new_bus(folder):
    """Starts buses with limits of their own."""
    daemons = []

    def start(**limits):
        daemons.append(PrivateBus(folder, name=f"bus{len(daemons)}", limits=limits))
        return daemons[-1]

    yield start
    for daemon in daemons:
        daemon.stop()


@pytest.fixture
def new_bluez(request, bus):
    """Starts fake BlueZs."""
    request.node.fakes = []

    def start(on=bus, **kwargs):
        fake = FakeBluez(on, **kwargs)
        request.node.fakes.append(fake)
        return fake

    yield start
    for fake in request.node.fakes:
        fake.close()


@pytest.fixture
def bluez(new_bluez):
    return new_bluez()


@pytest.fixture
def monitor(bus):
    watcher = Monitor(bus)
    yield watcher
    watcher.close()


@pytest.fixture
def root(folder):
    return folder / "nodes"


@pytest.fixture
def launch(request, bus, root):
    """Starts services. Whichever the test leaves running has to end with 0 on SIGTERM; all have to be clean."""
    request.node.services = []

    def start(**kwargs):
        kwargs.setdefault("address", bus.address)
        kwargs.setdefault("root", root)
        service = Service(**kwargs)
        request.node.services.append(service)
        return service

    yield start
    left = [service for service in request.node.services if service.running]
    for service in request.node.services:
        service.end()
    for service in left:
        assert service.popen.returncode == 0, f"ended with {service.popen.returncode} on {signal.SIGTERM.name}"
    for service in request.node.services:
        service.check_clean()


@pytest.fixture
def start(bluez, launch):
    """Starts a service on the fake BlueZ and waits until it is ready."""
    def ready(limit=5, **kwargs):
        return launch(**kwargs).wait_ready(limit)

    return ready


def pytest_addoption(parser):
    parser.addoption("--rounds", type=int, default=1, help="run each test this often")


def pytest_generate_tests(metafunc):
    rounds = metafunc.config.getoption("rounds")
    if rounds > 1:
        metafunc.fixturenames.append("_round")
        metafunc.parametrize("_round", range(rounds))
