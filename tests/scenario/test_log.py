"""The log: threshold, form, and readers that misbehave."""

import os
import socket
import subprocess

import pytest

from harness.bluez import FAILED, Error, device_path
from harness.process import BIN, WRAPPER, Process
from harness.varlink import FAILURE, Client
from harness.waiting import stretched, wait_until


def _service_environment(bus, root):
    return {"PATH": os.environ["PATH"], "DBUS_SYSTEM_BUS_ADDRESS": bus.address, "NODE_ROOT": str(root),
            **{key: value for key, value in os.environ.items() if key.endswith("SAN_OPTIONS")}}


@pytest.mark.parametrize("threshold, levels", [("0", {1, 3, 4}), ("1", {1, 3, 4}), ("2", {3, 4}), ("3", {3, 4}),
                                               ("4", {4}), ("5", set()), ("", {1, 3, 4})])
def test_the_threshold_hides_what_is_below_it(bluez, launch, threshold, levels):
    path = bluez.set_device(Alias=None)
    bluez.answer("RegisterAgent", FAILED)
    service = launch(env={"SYSLOG_LEVEL": threshold})
    assert service.wait() == 1
    assert {line.level for line in service.logged()} == levels
    if 3 in levels:
        service.wait_log(f"Could not obtain alias of device {path}", level=3)
    if 4 in levels:
        service.wait_log("Could not initialize service", level=4)


def test_at_two_a_whole_life_is_silent_but_for_its_end(bluez, launch):
    bluez.set_adapter()
    service = launch(env={"SYSLOG_LEVEL": "2"})
    service.wait_node(service.node("service"))
    assert service.stop() == 0
    assert {line.level for line in service.logged()} == {3}, "only the refused unregistration"


def test_control_characters_are_escaped(bluez, launch):
    bluez.answer("RegisterAgent", Error("org.bluez.Error.Failed", "two\nlines \x1b[31m red\r\ttab \x7f end"))
    service = launch()
    assert service.wait() == 1
    line = next(line for line in service.logged() if line.text and line.text.startswith("Could not register"))
    assert all(ord(character) >= 32 and ord(character) != 127 for character in line.raw)
    assert "\\n" in line.text and "red" in line.text and "end" in line.text


def test_long_texts_are_one_line(bluez, launch):
    bluez.answer("RegisterAgent", Error("org.bluez.Error.Failed", "x" * 100000))
    service = launch()
    assert service.wait() == 1
    assert "Could not register agent: " + "x" * 100000 in service.texts()


def test_texts_that_are_not_ascii_stand_as_they_are(bluez, launch):
    bluez.answer("RegisterAgent", Error("org.bluez.Error.Failed", "kein Glück 蓝牙"))
    service = launch()
    assert service.wait() == 1
    assert "Could not register agent: kein Glück 蓝牙" in service.texts()


def test_to_the_journal_a_line_has_its_priority_and_no_time(bluez, bus, root):
    """Standard output is a socket that JOURNAL_STREAM names, as under systemd."""
    ours, theirs = socket.socketpair()
    info = os.fstat(theirs.fileno())
    environment = {**_service_environment(bus, root), "JOURNAL_STREAM": f"{info.st_dev}:{info.st_ino}"}
    bluez.set_device(Alias=None)
    process = subprocess.Popen([*WRAPPER, BIN / "bluetooth-service"], env=environment, stdin=subprocess.DEVNULL,
                               stdout=theirs, stderr=subprocess.DEVNULL)
    theirs.close()
    wait_until((root / "bluetooth/service").exists, "the control node")
    with Client(str(root / "bluetooth/service")) as client:
        assert client.do("STOP") == 0
    with ours, ours.makefile(encoding="utf-8") as log:
        lines = log.read().splitlines()
    assert process.wait(stretched(5)) == 0
    assert "<6>[1] Bluetooth/Main ServiceBluetoothLinux: Initializing service" in lines
    alias = f"Could not obtain alias of device {device_path('00:11:22:33:44:55')}"
    assert f"<4>[3] Bluetooth/Main ServiceBluetoothLinux: {alias}" in lines


def test_a_stale_journal_variable_is_no_journal(bluez, launch):
    service = launch(env={"JOURNAL_STREAM": "1:1"})
    service.wait_ready()


def test_a_reader_that_is_stuck_delays_no_client(bluez, bus, root):
    bluez.set_adapter()
    bluez.answer("StartDiscovery", Error("org.bluez.Error.Failed", "y" * 500))
    stuck, output = os.pipe()
    process = subprocess.Popen([*WRAPPER, BIN / "bluetooth-service"], env=_service_environment(bus, root),
                               stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL)
    os.close(output)
    try:
        wait_until((root / "bluetooth/service").exists, "the control node")
        with Client(str(root / "bluetooth/adapters/00:1A:7D:DA:71:13/adapter")) as client:
            for _ in range(500):
                assert client.do("INQUIRY_START", limit=1) == FAILURE
        with Client(str(root / "bluetooth/service")) as client:
            assert client.do("STOP") == 0
        assert process.wait(stretched(5)) == 0
    finally:
        os.close(stuck)
        process.kill()
        process.wait()


def test_a_log_that_nobody_can_read_any_more_does_not_end_the_service(bluez, bus, root):
    bluez.set_adapter()
    reader, output = os.pipe()
    process = subprocess.Popen([*WRAPPER, BIN / "bluetooth-service"], env=_service_environment(bus, root),
                               stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL)
    os.close(output)
    os.close(reader)
    try:
        wait_until((root / "bluetooth/service").exists, "the control node")
        with Client(str(root / "bluetooth/adapters/00:1A:7D:DA:71:13/adapter")) as client:
            assert client.do("INQUIRY_START") == 0
            assert client.do("INQUIRY_STOP") == 0
        with Client(str(root / "bluetooth/service")) as client:
            assert client.do("STOP") == 0
        assert process.wait(stretched(5)) == 0
    finally:
        process.kill()
        process.wait()


def test_standard_descriptors_that_are_closed_are_opened(bluez, bus, root):
    bluez.set_adapter()
    process = Process(["sh", "-c", 'exec "$0" 0<&- 1>&- 2>&-', BIN / "bluetooth-service"],
                      _service_environment(bus, root))
    try:
        wait_until((root / "bluetooth/master").exists, "the last node")
        for number in range(3):
            assert os.readlink(f"/proc/{process.pid}/fd/{number}") == "/dev/null"
        with Client(str(root / "bluetooth/master")) as client:
            assert client.do("INQUIRY_START") == 0
        with Client(str(root / "bluetooth/service")) as client:
            assert client.do("STOP") == 0
        assert process.wait() == 0
    finally:
        process.end()
