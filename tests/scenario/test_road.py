"""The three programs together: service, simulated BlueZ and client, as a person uses them."""

import json
import os
import re
import signal
import subprocess

import pytest

from harness.process import BIN, ROOT, Process
from harness.waiting import stretched, wait_until

KEYBOARD = "5C:F3:70:12:34:01"
KEYBOARD_PATH = "/org/bluez/hci0/dev_5C_F3_70_12_34_01"
REFUSED, REJECTED, NOT_FOUND, UNREACHABLE, INTERRUPTED = 7, 8, 3, 5, 130


TOUR = """\
The service has started and published what BlueZ knows
An inquiry on all adapters; devices become nodes as they are found
A device, with all that can be read of it
Pairing with a keyboard: the pincode appears, somebody types it on the keyboard, the pairing is done
A headset needs no pincode; one of its profiles is activated
The phone says no
A pairing that is cancelled while it is under way
A watch tells when the name of a device changes
STOP ends the service""".splitlines()


@pytest.fixture
def programs(bus, root):
    """Runs the programs of the build with the bus and the root of the test."""
    return Programs(bus, root)


class Programs:
    def __init__(self, bus, root):
        self.environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address, "NODE_ROOT": str(root)}
        self.started = []

    def run(self, program, *arguments, code=0, limit=20):
        """Runs to the end; its standard output. Fails with what it said when the exit code is another."""
        result = subprocess.run([BIN / program, *arguments], env=self.environment, stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=stretched(limit), check=False)
        assert result.returncode == code, \
            f"{program} {' '.join(arguments)}: exit code {result.returncode}\n{result.stdout}{result.stderr}"
        self.errors = result.stderr
        return result.stdout

    def btnode(self, *arguments, **kwargs):
        return self.run("btnode", *arguments, **kwargs)

    def ctl(self, *arguments, **kwargs):
        return self.run("bluez-simulator", "ctl", *arguments, **kwargs).strip()

    def start(self, program, *arguments):
        self.started.append(Process([BIN / program, *arguments], self.environment))
        return self.started[-1]


@pytest.fixture
def simulate(programs, launch):
    """Starts the simulator with a scenario and the service on it."""
    def run(scenario, **kwargs):
        simulator = programs.start("bluez-simulator", "--scenario", scenario)
        simulator.lines.wait(lambda line: line.raw == "ready", "a simulator that is ready")
        return launch(**kwargs).wait_ready(limit=20)

    yield run
    for process in programs.started:
        process.end()


@pytest.mark.short
def test_the_whole_road(simulate, programs):
    """From an inquiry to STOP: what somebody sees who uses the client only."""
    service = simulate("tour")
    programs.ctl("tune", "type-after", "0")
    assert "00:AA:01:00:00:00" in programs.btnode("list", "adapters")

    found = programs.btnode("scan", "--for", "3")
    assert KEYBOARD in found and "Desk Keyboard" in found

    pairing = programs.start("btnode", "pair", "Desk")
    shown = pairing.lines.wait(lambda line: re.search(r"\b\d{6}\b", line.raw), "a line with the pincode")
    pincode = re.search(r"\b\d{6}\b", shown.raw)[0]
    assert programs.ctl("pin-code", KEYBOARD_PATH) == pincode
    programs.ctl("type-pin-code", KEYBOARD_PATH, pincode)
    assert pairing.wait() == 0, pairing.output() + pairing.errors

    device = json.loads(programs.btnode("show", KEYBOARD, "--json"))
    assert json.dumps(device).count("4388"), "the profile 0x1124 of a keyboard is listed"
    programs.btnode("pair", "Travel")
    programs.btnode("activate", "Travel", "0x110b")
    assert "110b" in programs.btnode("profiles", "Travel")
    programs.btnode("stop")
    assert service.wait() == 0


def test_the_tour(simulate, programs, folder):
    """What ./run shows, on the programs of the build."""
    log = folder / "service.log"
    service = simulate("tour", prefix=["bash", "-c", 'exec "${@:2}" > >(tee "$1")', "bash", log])
    environment = {**programs.environment, "PATH": f"{BIN}:{os.environ['PATH']}"}
    tour = subprocess.run([ROOT / "scripts/tour", "simulator", log], env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=stretched(90),
                          check=False)
    assert tour.returncode == 0, tour.stdout
    assert [line[2:] for line in tour.stdout.splitlines() if line.startswith("# ")] == TOUR, tour.stdout
    assert service.wait() == 0


def test_a_wrong_pincode_is_rejected(simulate, programs):
    simulate("keyboard")
    pairing = programs.start("btnode", "pair", "Desk")
    shown = pairing.lines.wait(lambda line: re.search(r"\b\d{6}\b", line.raw), "a line with the pincode")
    pincode = re.search(r"\b\d{6}\b", shown.raw)[0]
    device = programs.btnode("list", "devices", "--json")
    path = "/org/bluez/hci0/dev_" + json.loads(device)["devices"][0]["address"].replace(":", "_")
    programs.ctl("type-pin-code", path, "000000" if pincode != "000000" else "111111")
    assert pairing.wait() == REJECTED, pairing.output() + pairing.errors


def test_ctrl_c_cancels_a_pairing(simulate, programs):
    service = simulate("keyboard")
    pairing = programs.start("btnode", "pair", "Desk")
    pairing.lines.wait(lambda line: re.search(r"\b\d{6}\b", line.raw), "a line with the pincode")
    pairing.send_signal(signal.SIGINT)
    assert pairing.wait() == INTERRUPTED, pairing.output() + pairing.errors
    service.wait_log(re.compile("Request cancel pairing for .*"), level=1)
    assert programs.btnode("get", "Desk", "STATUS").strip() == "1"


def test_a_device_that_rejects(simulate, programs):
    simulate("zoo")
    programs.btnode("pair", "Pocket", code=REFUSED)


def test_a_device_with_a_second_pincode_is_cancelled_by_the_service(simulate, programs):
    service = simulate("zoo")
    programs.btnode("pair", "Forgetful", code=REJECTED)
    service.wait_log(re.compile("Request cancel pairing for .*"), level=1)


def test_malformed_objects_are_survived(simulate, programs):
    service = simulate("malformed")
    listed = json.loads(programs.btnode("list", "--json"))
    addresses = {entry["address"] for entry in listed["adapters"] + listed["devices"]}
    assert {"00:AA:01:00:00:00", "00:AA:01:00:00:7B", "00:AA:01:00:00:7C"} <= addresses
    assert service.stop() == 0


def test_every_kind_of_device_can_be_paired_or_not(simulate, programs):
    """Whatever a device does, its CONNECT ends and the service goes on."""
    service = simulate("zoo")
    for address in [entry["address"] for entry in json.loads(programs.btnode("list", "devices", "--json"))["devices"]]:
        with service.device(address) as client:
            client.do("CONNECT", {"kind": "integer", "integer": 1500}, limit=10)
            client.value("NAME")
    assert service.stop() == 0


def test_a_hundred_devices_and_a_flood_of_signals(simulate, programs):
    service = simulate("hundred")
    assert len(json.loads(programs.btnode("list", "devices", "--json"))["devices"]) == 100
    programs.ctl("flood", "2000")
    with service.device("5C:F3:70:00:00:01") as client:
        for _ in range(100):
            assert client.value("NAME", limit=2) == "Headset 1"
    wait_until(lambda: int(programs.ctl("flood-sent")) > 2000, "two thousand signals")
    assert service.stop() == 0


def test_an_adapter_without_power_is_waited_for(simulate, programs):
    """The first adapter has no power for four seconds: the third attempt succeeds."""
    service = simulate("not-ready")
    with service.adapter("00:AA:01:00:00:00") as client:
        assert client.do("INQUIRY_START", limit=10) == 0


def test_no_service_is_told_at_once_and_how_to_start_one(programs, root):
    programs.btnode("list", code=UNREACHABLE, limit=2)
    assert str(root) in programs.errors


def test_a_device_that_is_not_there(simulate, programs):
    simulate("two-adapters")
    programs.btnode("show", "Nobody", code=NOT_FOUND)
