"""What the service does on the bus and says in its log until it is ready, and how a start fails."""

import datetime
import re
import time

import pytest

from harness.bluez import ADAPTER, AGENT_PATH, DEVICE, FAILED, MANAGER, OBJECTS, PROPERTIES, Error, Reply, hold
from harness.waiting import stretched

NO_REPLY = re.compile(r"Failed to obtain managed objects: Did not receive a reply\..*")
OBJECT_RULE = "type='signal',path='/',interface='org.freedesktop.DBus.ObjectManager'"


def device_rule(path):
    return f"type='signal', interface='org.freedesktop.DBus.Properties', path='{path}'"


@pytest.mark.short
def test_bus_calls_of_a_start_stand_in_this_order_with_these_arguments(monitor, bluez, start):
    adapter = bluez.set_adapter()
    device = bluez.set_device()
    start()
    calls = [(call.destination, call.path, call.interface, call.member, call.args)
             for call in monitor.calls(bluez.agent[0]) if call.member != "Hello"]
    bus = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
    assert calls == [
        ("org.bluez", "/", OBJECTS, "GetManagedObjects", ()),
        *(("org.bluez", adapter, PROPERTIES, "Get", (ADAPTER, name)) for name in ("Address", "Discovering", "Name")),
        *(("org.bluez", device, PROPERTIES, "Get", (DEVICE, name)) for name in ("Alias", "Paired", "Class")),
        (*bus, "AddMatch", (device_rule(device),)),
        (*bus, "AddMatch", (OBJECT_RULE,)),
        ("org.bluez", "/org/bluez", MANAGER, "RegisterAgent", (AGENT_PATH, "NoInputNoOutput")),
    ]
    register = bluez.wait_call("RegisterAgent")
    assert register.signature == "os"


def test_log_of_a_start(bluez, start):
    adapter = bluez.set_adapter()
    device = bluez.set_device()
    service = start()
    assert [(line.level, line.text) for line in service.logged()] == [
        (1, "Initializing service"),
        (1, "Searching for existing adapters and devices"),
        (1, f"Adapter added: {adapter}"),
        (1, f"Device added: {device}"),
        (1, "Adapters/devices filter successfully installed"),
        (1, "Authentication agent successfully registered"),
        (1, "Service successfully initialized"),
    ]


def test_log_lines_carry_time_process_thread_and_filter(start):
    before = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None) - datetime.timedelta(milliseconds=1)
    service = start()
    after = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None)
    for line in service.logged():
        assert (line.process, line.thread, line.filter) == ("Bluetooth", "Main", "ServiceBluetoothLinux"), line.raw
        assert before <= line.time <= after, line.raw


def test_nothing_there_yet_is_a_good_start(start):
    service = start()
    assert service.nodes() == ["master", "service"]


def test_no_bus(folder, launch):
    service = launch(address=f"unix:path={folder}/nowhere")
    assert service.wait() == 1
    assert [(line.level, line.text) for line in service.logged()] == [
        (4, f"Could not create connection: Failed to connect to socket {folder}/nowhere: No such file or directory"),
        (4, "Could not create service"),
    ]
    assert not (service.root / "bluetooth").exists() and service.root.is_dir()


def test_no_bluez_on_the_bus(launch):
    service = launch()
    assert service.wait() == 1
    absent = "The name org.bluez was not provided by any .service files"
    assert [(line.level, line.text) for line in service.logged()] == [
        (1, "Initializing service"),
        (1, "Searching for existing adapters and devices"),
        (4, f"Failed to obtain managed objects: {absent}"),
        (4, "Could not initialize service"),
        (3, f"Failed to de-register authentication agent: {absent}"),
    ]
    assert not (service.root / "bluetooth").exists()


def test_managed_objects_refused(bluez, launch):
    bluez.answer("GetManagedObjects", FAILED)
    service = launch()
    assert service.wait() == 1
    service.expect_log((4, "Failed to obtain managed objects: it failed"), (4, "Could not initialize service"))
    assert not bluez.calls_of("RegisterAgent")


def test_managed_objects_are_waited_for_one_second(bluez, launch):
    bluez.answer("GetManagedObjects", hold)
    service = launch()
    asked = bluez.wait_call("GetManagedObjects")
    line = service.wait_log(NO_REPLY, level=4)
    assert 0.8 <= line.seen - asked.time <= stretched(1.7)
    assert service.wait() == 1


def test_agent_refused(bluez, launch):
    adapter = bluez.set_adapter()
    device = bluez.set_device()
    bluez.answer("RegisterAgent", Error("org.bluez.Error.AlreadyExists", "Already Exists"))
    service = launch()
    assert service.wait() == 1
    service.expect_log((1, f"Adapter added: {adapter}"), (1, f"Device added: {device}"),
                       (1, "Adapters/devices filter successfully installed"),
                       (4, "Could not register agent: Already Exists"),
                       (4, "Could not initialize service"))
    assert bluez.calls_of("UnregisterAgent")
    assert not (service.root / "bluetooth").exists() and service.root.is_dir()


def test_agent_registration_is_waited_for_one_second(bluez, launch):
    bluez.answer("RegisterAgent", hold)
    service = launch()
    asked = bluez.wait_call("RegisterAgent")
    line = service.wait_log(re.compile(r"Could not register agent: Did not receive a reply\..*"), level=4)
    assert 0.8 <= line.seen - asked.time <= stretched(1.7)
    assert service.wait() == 1


def test_match_rule_refused(new_bus, new_bluez, launch):
    """The bus allows one rule: the first device takes it, the second goes on without, the service cannot."""
    limited = new_bus(max_match_rules_per_connection=1)
    bluez = new_bluez(on=limited)
    bluez.set_device("00:11:22:33:44:01")
    second = bluez.set_device("00:11:22:33:44:02")
    service = launch(address=limited.address)
    assert service.wait() == 1
    service.wait_log(re.compile(f"Could not add properties filter for device {second}: .+"), level=3)
    service.wait_log(f"Device added: {second}", level=1)
    service.wait_log(re.compile("Could not add match: .+"), level=4)
    service.wait_log("Could not initialize service", level=4)
    assert not bluez.calls_of("RegisterAgent")


@pytest.mark.parametrize("kind", ["file", "below a file", "not writable"])
def test_a_root_that_cannot_be_used_is_named(bluez, launch, folder, kind):
    blocker = folder / "blocker"
    blocker.write_text("mine")
    root = {"file": blocker, "below a file": blocker / "nodes", "not writable": "/proc/nodes"}[kind]
    service = launch(root=root)
    assert service.wait() == 1
    assert str(root) in service.output() + service.errors
    assert blocker.read_text() == "mine"


def test_the_start_is_quick(bluez, launch):
    for number in range(30):
        bluez.set_device(f"00:11:22:33:44:{number:02X}")
    service = launch()
    service.wait_ready()
    assert time.monotonic() - service.began < stretched(2)


def test_answers_in_any_form_are_enough(bluez, start):
    """RegisterAgent's return may carry values; only an error is one."""
    bluez.answer("RegisterAgent", Reply("s", "welcome"))
    service = start()
    service.wait_log("Authentication agent successfully registered", level=1)
