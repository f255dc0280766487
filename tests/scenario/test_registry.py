"""All adapters together: the master node, two of a kind, and what comes and goes."""

import threading

import pytest

from harness.bluez import ADAPTER, FAILED, NOT_READY, hold
from harness.varlink import FAILURE, Client, Closed, action, integer, listing, nothing, string
from harness.waiting import wait_until

FIRST, SECOND = "00:00:00:00:00:01", "00:00:00:00:00:02"


@pytest.fixture
def two(bluez):
    return bluez.set_adapter("hci0", FIRST), bluez.set_adapter("hci1", SECOND)


def test_descriptions_of_the_control_nodes(start):
    service = start()
    with service.control() as client:
        assert client.describe() == {"node": "bluetooth/service", "server": "LinuxBTService", "attributes": [],
                                     "actions": ["STOP"]}
        assert client.get("NAME") == []
        assert client.call("com.kelvo.node.Set", {"values": [string("NAME", "x")]}) == {"values": []}
        assert client.execute() == []
    with service.master() as client:
        assert client.describe() == {"node": "bluetooth/master", "server": "LinuxBTService", "attributes": [],
                                     "actions": ["INQUIRY_START", "INQUIRY_STOP"]}
        assert client.get("ADDRESS") == []
        assert client.execute() == []


@pytest.mark.parametrize("name", ["STOP", "inquiry_start", "CONNECT", ""])
def test_the_master_node_knows_only_its_own_actions(start, name):
    service = start()
    with service.master() as client:
        assert client.execute(nothing(name)) == [string(name, "Invalid action")]
    with service.control() as client:
        if name != "STOP":
            assert client.execute(nothing(name)) == [string(name, "Invalid action")]


def test_an_inquiry_without_an_adapter_fails(start):
    with start().master() as client:
        assert client.do("INQUIRY_START") == FAILURE
        assert client.do("INQUIRY_STOP") == FAILURE


def test_an_inquiry_on_one_adapter(bluez, start):
    bluez.set_adapter()
    with start().master() as client:
        assert client.do("INQUIRY_START") == 0
        assert client.do("INQUIRY_STOP") == 0
    assert [call.member for call in bluez.calls_of("StartDiscovery", "StopDiscovery")] == ["StartDiscovery",
                                                                                          "StopDiscovery"]


@pytest.mark.parametrize("failing", [0, 1])
def test_an_inquiry_on_two_adapters_of_which_one_fails_succeeds(bluez, start, two, failing):
    bluez.answer("StartDiscovery", FAILED, path=two[failing])
    service = start()
    with service.master() as client:
        assert client.execute(action("INQUIRY_START")) == [integer("INQUIRY_START", 0)]
        assert sorted(call.path for call in bluez.calls_of("StartDiscovery")) == sorted(two), "every one is tried"
        assert client.do("INQUIRY_START") == 0
    # The one that scans is not asked again, the one that failed is.
    assert [call.path for call in bluez.calls_of("StartDiscovery")][2:] == [two[failing]]


def test_an_inquiry_that_fails_on_all_adapters_fails(bluez, start, two):
    bluez.answer("StartDiscovery", FAILED)
    with start().master() as client:
        assert client.do("INQUIRY_START") == FAILURE
    assert len(bluez.calls_of("StartDiscovery")) == 2


def test_adapters_are_asked_in_the_same_order_every_time(bluez, start):
    for number in range(5):
        bluez.set_adapter(f"hci{number}", f"00:00:00:00:00:0{number}")
    with start().master() as client:
        for _ in range(3):
            assert client.do("INQUIRY_START") == 0
            assert client.do("INQUIRY_STOP") == 0
    order = [call.path for call in bluez.calls_of("StartDiscovery", "StopDiscovery")]
    assert [order[begin:begin + 5] for begin in range(0, 30, 5)] == [order[:5]] * 6
    assert len(set(order[:5])) == 5


def test_options_of_the_master_node_are_ignored(bluez, start):
    bluez.set_adapter()
    service = start()
    with service.master() as client:
        assert client.execute(listing("INQUIRY_START", integer("class", 5), string("foo", "x"))) == [
            integer("INQUIRY_START", 0)]
    assert "Option BT class filter not yet implemented" not in service.texts()


def test_the_adapters_know_what_the_master_started(bluez, start, two):
    service = start()
    with service.master() as master, service.adapter(FIRST) as adapter:
        assert master.do("INQUIRY_START") == 0
        assert adapter.do("INQUIRY_START") == 0
        assert len(bluez.calls_of("StartDiscovery")) == 2
        assert adapter.do("INQUIRY_STOP") == 0
        assert [call.path for call in bluez.calls_of("StopDiscovery")] == [two[0]]


def test_an_inquiry_on_all_adapters_holds_up_adapters_only(bluez, start, two):
    """The walk keeps the registry's lock over its bus calls; devices and the control node go on."""
    bluez.set_device()
    bluez.answer("StartDiscovery", hold, path=two[0])
    bluez.answer("StartDiscovery", hold, path=two[1])
    service = start()
    with service.master() as master, service.device() as device, service.control() as control, \
            service.adapter(FIRST) as adapter:
        master.send_execute(action("INQUIRY_START"))
        bluez.wait_call("StartDiscovery")
        adapter.send("com.kelvo.node.Get", {"attribute": "NAME"})
        assert device.value("NAME") == "device 55"
        assert control.describe()["actions"] == ["STOP"]
        bluez.calls_of("StartDiscovery")[0].reply()
        bluez.wait_call("StartDiscovery", count=2).reply()
        assert master.done("INQUIRY_START") == 0
        assert adapter.result()["values"] == [string("NAME", "controller hci0")]


def test_a_hanging_inquiry_on_one_adapter_holds_up_nobody_else(bluez, start, two):
    bluez.answer("StartDiscovery", NOT_READY, path=two[0])
    service = start()
    with service.adapter(FIRST) as hanging, service.adapter(FIRST) as same, service.adapter(SECOND) as other:
        hanging.send_execute(action("INQUIRY_START"))
        bluez.wait_call("StartDiscovery", path=two[0])
        assert other.do("INQUIRY_START", limit=1) == 0
        assert same.value("NAME", limit=1) == "controller hci0"


# Coming and going


def test_two_adapters_have_their_own_nodes(bluez, start, two):
    service = start()
    with service.adapter(FIRST) as first, service.adapter(SECOND) as second:
        assert first.value("NAME") == "controller hci0"
        assert second.value("NAME") == "controller hci1"
        assert second.do("INQUIRY_START") == 0
    assert [call.path for call in bluez.calls_of("StartDiscovery")] == [two[1]]


def test_nobody_ever_sees_the_answer_of_another_node(bluez, start, two):
    """Many connections ask two nodes of one server at once."""
    service = start()
    wrong = []

    def ask(address, name):
        with service.adapter(address) as client:
            for _ in range(200):
                client.send("com.kelvo.node.Get", {"attribute": "ADDRESS"})
                client.send("com.kelvo.node.Get", {"attribute": "NAME"})
                got = [client.result()["values"][0]["text"] for _ in range(2)]
                if got != [address, name]:
                    wrong.append(got)

    threads = [threading.Thread(target=ask, args=pair) for pair in
               [(FIRST, "controller hci0"), (SECOND, "controller hci1")] * 4]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert wrong == []


def test_an_adapter_comes_later_and_goes(bluez, start):
    service = start()
    path = bluez.set_adapter(announce=True)
    service.wait_log(f"Adapter added: {path}", level=1)
    with service.adapter() as client:
        assert client.value("NAME") == "controller hci0"
        bluez.remove(path)
        client.expect_closed()
    service.wait_log(f"Adapter removed: {path}", level=1)
    assert service.nodes() == ["master", "service"]
    with service.master() as client:
        assert client.do("INQUIRY_START") == FAILURE


def test_an_adapter_that_comes_again_is_published_again_and_knows_nothing_of_before(bluez, start):
    path = bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        assert client.do("INQUIRY_START") == 0
    bluez.remove(path)
    service.wait_log(f"Adapter removed: {path}")
    bluez.set_adapter(announce=True)
    service.wait_log(f"Adapter added: {path}", count=2)
    with service.adapter() as client:
        assert client.do("INQUIRY_START") == 0
    assert len(bluez.calls_of("StartDiscovery")) == 2


def test_an_adapter_announced_twice_is_one_and_is_not_read_again(bluez, start):
    path = bluez.set_adapter()
    service = start()
    asked = len(bluez.calls_of("Get"))
    inode = service.adapter_node().lstat().st_ino
    bluez.set_adapter(Name=("s", "another name"), announce=True)
    bluez.settle()
    assert service.texts().count(f"Adapter added: {path}") == 1
    assert len(bluez.calls_of("Get")) == asked
    assert service.adapter_node().lstat().st_ino == inode


def test_removing_an_unknown_adapter_is_silent(bluez, start):
    bluez.set_adapter()
    service = start()
    lines = service.mark()
    bluez.interfaces_removed("/org/bluez/hci7", [ADAPTER])
    bluez.settle()
    assert service.mark() == lines
    assert service.adapter_node().exists()


def test_of_two_adapters_with_one_address_the_second_is_left_out_with_a_line(bluez, start):
    bluez.set_adapter("hci0", FIRST)
    service = start()
    other = bluez.set_adapter("hci1", FIRST, announce=True)
    bluez.settle()
    assert [line.raw for line in service.logged() if line.level != 1 and FIRST in line.raw], "a log line says so"
    with service.adapter(FIRST) as client:
        assert client.value("NAME") == "controller hci0"
    bluez.remove(other)
    bluez.settle()
    with service.adapter(FIRST) as client:
        assert client.value("NAME") == "controller hci0"


def test_adapters_come_and_go_under_load(bluez, start):
    """Clients ask all the time while the adapter they ask comes and goes: an answer, or the end of the connection."""
    service = start()
    node = str(service.adapter_node())
    finished = threading.Event()
    wrong = []

    def ask():
        while not finished.is_set():
            try:
                with Client(node) as client:
                    while True:
                        values = client.get("NAME")
                        if values not in ([], [string("NAME", "controller hci0")]):
                            wrong.append(values)
            except (FileNotFoundError, ConnectionError, Closed):
                pass

    threads = [threading.Thread(target=ask) for _ in range(3)]
    for thread in threads:
        thread.start()
    for _ in range(50):
        path = bluez.set_adapter(announce=True)
        wait_until(service.adapter_node().exists, "the adapter's node")
        bluez.remove(path)
        wait_until(lambda: not service.adapter_node().exists(), "no node")
    finished.set()
    for thread in threads:
        thread.join()
    assert wrong == []
