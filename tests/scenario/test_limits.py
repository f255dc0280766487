"""Every limit: what is at it goes, what is one past it does not, and the log says so once."""

import contextlib
import json
import os
import resource
import select
import socket
import subprocess
import sys
import threading
import time

import pytest

from harness.bluez import hold
from harness.varlink import (FAILURE, NODE, SERVICE, Client, Closed, VarlinkError, action, listing, nothing,
                             string)
from harness.waiting import SLOWNESS, TimedOut, stretched, wait_until

MESSAGE = 256 * 1024
DEPTH = 16
PENDING = 64
PER_USER = 128
IN_ALL = 512
SERVED = 256
IN_BUS_CALLS = 64
UNSENT = 256 * 1024
MESSAGE_SECONDS = 10

DESCRIBE = b'{"method":"com.kelvo.node.Describe"}\0'

AS_ROOT = pytest.mark.skipif(os.geteuid() != 0, reason="needs root to be other users")


def lines_about(service, start):
    return [line.raw for line in service.logged(start) if line.level != 1]


def padded(size):
    """A call whose message is of this size without its NUL."""
    message = {"method": f"{NODE}.Get", "parameters": {"attribute": ""}}
    message["parameters"]["attribute"] = "x" * (size - len(json.dumps(message)))
    data = json.dumps(message).encode()
    assert len(data) == size
    return data


# Messages


def test_a_message_at_the_limit(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        for _ in range(3):
            client.send_raw(padded(MESSAGE) + b"\0")
            assert client.result() == {"values": []}


def test_a_message_past_the_limit_closes_the_connection_at_once(bluez, start):
    """As soon as the limit is passed: nothing that would end the message was sent."""
    bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        client.send_raw(DESCRIBE)
        client.result()
        lines = service.mark()
        with contextlib.suppress(ConnectionError):
            client.send_raw(padded(MESSAGE + 1))
        client.expect_closed(limit=2)
    wait_until(lambda: lines_about(service, lines), "a log line about the limit")
    assert len(lines_about(service, lines)) == 1


def test_white_space_counts_too(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        with contextlib.suppress(ConnectionError):
            client.send_raw(b" " * (MESSAGE + 1))
        client.expect_closed(limit=2)


def nested(depth):
    value = nothing("leaf")
    for _ in range(depth - 1):
        value = listing("level", value)
    return value


def test_values_nested_as_deep_as_the_limit(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        assert client.execute(nested(DEPTH)) == [string("level", "Invalid Action")]
        assert client.execute(nested(2), nested(DEPTH)) == [string("level", "Invalid Action")] * 2


def test_values_nested_deeper_are_an_invalid_parameter_and_the_connection_stays(bluez, start):
    bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        lines = service.mark()
        for depth in (DEPTH + 1, DEPTH + 2, 30, 100):
            with pytest.raises(VarlinkError) as raised:
                client.execute(action("INQUIRY_START"), nested(depth))
            assert raised.value.name == f"{SERVICE}.InvalidParameter"
        client.describe()
        assert len(lines_about(service, lines)) == 1, "once per connection that runs into it"
    assert not bluez.calls_of("StartDiscovery")


def test_a_message_may_take_nearly_ten_seconds(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        client.send_raw(DESCRIBE[:10])
        with pytest.raises(TimedOut):
            client.receive(limit=(MESSAGE_SECONDS - 1) / SLOWNESS)
        client.send_raw(DESCRIBE[10:])
        assert client.result()["server"] == "LinuxBTAdapters"


@pytest.mark.parametrize("trickle", [False, True], ids=["silent", "trickling"])
def test_a_message_that_takes_longer_closes_the_connection(bluez, start, trickle):
    bluez.set_adapter()
    service = start()
    with service.adapter() as client:
        client.send_raw(DESCRIBE)
        client.result()
        began = time.monotonic()
        client.send_raw(b"{")
        end = threading.Event()

        def send():
            while trickle and not end.wait(0.5):
                try:
                    client.send_raw(b" ")
                except OSError:
                    return

        thread = threading.Thread(target=send)
        thread.start()
        try:
            client.expect_closed(limit=MESSAGE_SECONDS + 5)
        finally:
            end.set()
            thread.join()
        assert MESSAGE_SECONDS - 0.1 <= time.monotonic() - began <= MESSAGE_SECONDS + stretched(2)


def test_a_connection_without_a_message_may_stay(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        client.send_raw(DESCRIBE)
        client.result()
        with pytest.raises(TimedOut):
            client.receive(limit=(MESSAGE_SECONDS + 2) / SLOWNESS)
        assert client.describe()["server"] == "LinuxBTAdapters"


def test_the_time_that_the_service_leaves_a_message_unread_does_not_count(bluez, start):
    """Half a message stands behind a full row of calls while the first of them hangs for more than ten seconds."""
    bluez.set_adapter()
    bluez.answer("StartDiscovery", hold)
    with start().adapter() as client:
        client.send_execute(action("INQUIRY_START"))
        call = bluez.wait_call("StartDiscovery")
        client.send_raw(DESCRIBE * (PENDING - 1) + DESCRIBE[:10])
        with pytest.raises(TimedOut):
            client.receive(limit=(MESSAGE_SECONDS + 2) / SLOWNESS)
        call.reply()
        assert client.done("INQUIRY_START") == 0
        for _ in range(PENDING - 1):
            assert client.result()["server"] == "LinuxBTAdapters"
        client.send_raw(DESCRIBE[10:])
        assert client.result()["server"] == "LinuxBTAdapters"


# Calls


def test_pending_calls_of_a_connection(bluez, start):
    """With the first call in the bus 63 more are taken; a large one behind them stays with the kernel."""
    bluez.set_adapter()
    bluez.answer("StartDiscovery", hold)
    service = start()
    with service.adapter() as client, service.adapter() as other:
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
        client.send_execute(action("INQUIRY_START"))
        call = bluez.wait_call("StartDiscovery")
        for _ in range(PENDING - 1):
            client.send_raw(DESCRIBE)
        wait_until(lambda: not client.unread(), "64 calls that were taken")
        large = padded(150 * 1024) + b"\0"
        client.send_raw(large)
        service.wait_asleep(other)
        assert client.unread() > 0, "the 65th stays unread"
        for _ in range(20):
            other.describe()
        assert client.unread() > 0
        call.reply()
        assert client.done("INQUIRY_START") == 0
        wait_until(lambda: not client.unread(), "a call that is taken once there is room")
        for _ in range(PENDING - 1):
            assert client.result()["server"] == "LinuxBTAdapters"
        assert client.result() == {"values": []}


def test_memory_does_not_grow_with_what_is_sent_behind_a_call(bluez, start):
    bluez.set_adapter()
    bluez.answer("StartDiscovery", hold)
    service = start()
    with service.adapter() as client, service.adapter() as other:
        client.send_execute(action("INQUIRY_START"))
        bluez.wait_call("StartDiscovery")
        client.socket.setblocking(False)
        sent = 0
        with contextlib.suppress(BlockingIOError):
            while sent < 64 << 20:
                sent += client.socket.send(DESCRIBE * 1000)
        assert sent < 8 << 20, "what is not taken stays with the sender"
        other.describe()


@contextlib.contextmanager
def clients(open_one, count):
    """Connections that are all served; closed at the end."""
    with contextlib.ExitStack() as stack:
        made = []
        for _ in range(count):
            made.append(stack.enter_context(open_one()))
        yield made


def expect_busy(client, *request):
    with pytest.raises(VarlinkError) as raised:
        client.call(*request)
    assert raised.value.name == f"{NODE}.Busy" and raised.value.parameters == {}


@pytest.fixture
def more_descriptors():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4096), hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def test_requests_in_bus_calls(bluez, start, more_descriptors):
    bluez.set_adapter()
    bluez.set_device()
    bluez.answer("StartDiscovery", hold)
    service = start()
    with clients(service.adapter, IN_BUS_CALLS + 1) as made, service.device() as device, service.control() as control:
        for client in made[:IN_BUS_CALLS]:
            client.send_execute(action("INQUIRY_START"))
        bluez.wait_call("StartDiscovery", count=IN_BUS_CALLS, limit=10)
        late = made[IN_BUS_CALLS]
        expect_busy(late, f"{NODE}.Execute", {"values": [action("INQUIRY_START")]})
        # What makes no bus call is served, and so is everything that is never refused.
        assert late.value("NAME") == "controller hci0"
        assert late.do("INQUIRY_STOP") == 0, "it is not scanning: no bus call"
        assert device.value("STATUS") == 1
        assert control.describe()["actions"] == ["STOP"]
        # A whole call is refused, with what came before in it.
        expect_busy(late, f"{NODE}.Execute", {"values": [action("x"), action("INQUIRY_START")]})
        bluez.calls_of("StartDiscovery")[0].error("org.bluez.Error.Failed", "room for one more")
        # They run at the same time: whose call was the first, its answer tells.
        sockets = {client.socket: client for client in made[:IN_BUS_CALLS]}
        answered = select.select(list(sockets), [], [], stretched(5))[0]
        assert len(answered) == 1, "one of them is answered"
        first = sockets[answered[0]]
        assert first.done("INQUIRY_START") == FAILURE
        late.send_execute(action("INQUIRY_START"))
        bluez.wait_call("StartDiscovery", count=IN_BUS_CALLS + 1)
        assert len(bluez.calls_of("StartDiscovery")) == IN_BUS_CALLS + 1
        for call in bluez.calls_of("StartDiscovery")[1:]:
            call.error("org.bluez.Error.Failed")
        for client in made:
            if client is not first:
                assert client.done("INQUIRY_START") == FAILURE


def test_a_connect_that_waits_is_in_no_bus_call(bluez, start, more_descriptors):
    addresses = [f"00:11:22:33:44:{number:02X}" for number in range(IN_BUS_CALLS + 20)]
    for address in addresses:
        bluez.set_device(address)
    service = start()
    with contextlib.ExitStack() as stack:
        made = [stack.enter_context(service.device(address)) for address in addresses]
        for client in made:
            client.send_execute(action("CONNECT"))
        bluez.wait_call("Pair", count=len(addresses), limit=10)
        for call in bluez.calls_of("Pair"):
            call.reply()
        for client in made:
            assert client.done("CONNECT", limit=10) == [("RESULT", 0)]


def test_requests_being_served(bluez, start, more_descriptors):
    bluez.set_device()
    service = start()
    with clients(service.device, SERVED + 1) as made, service.control() as control, service.device() as watch:
        made[0].send_execute(action("CONNECT"))
        pair = bluez.wait_call("Pair")
        for client in made[1:SERVED]:
            client.send_execute(action("WAIT_CONNECTED"))
        # A Get before all of these are in would take the place of one.
        for client in made[1:SERVED]:
            wait_until(lambda client=client: not client.unread(), "a request that was taken")
        service.wait_asleep(made[1])
        late = made[SERVED]

        def refused():
            late.send(f"{NODE}.Get", {"attribute": "NAME"})
            return late.receive().get("error") == f"{NODE}.Busy"

        assert refused(), "256 requests are in progress"
        expect_busy(late, f"{NODE}.Execute", {"values": [action("WAIT_CONNECTED")]})
        expect_busy(late, f"{NODE}.Execute", {"values": []})
        expect_busy(late, f"{NODE}.Set", {"values": []})
        assert late.describe()["server"] == "LinuxBTDevices"
        assert late.call(f"{SERVICE}.GetInfo")["interfaces"]
        watch.watch()
        with pytest.raises(VarlinkError):
            late.call(f"{NODE}.Get", {})  # Wrong parameters are told whatever is going on.
        # With one less there is room for one.
        made[1].close()
        wait_until(lambda: not refused(), "room after a hang-up")
        made[1] = service.device()
        made[1].send_execute(action("WAIT_CONNECTED"))
        service.wait_asleep(made[1])
        assert refused(), "256 again"
        began = time.monotonic()
        assert control.do("STOP") == 0, "STOP is never refused"
        assert service.wait() == 0
        assert time.monotonic() - began < stretched(1.2), "the process ends within a second whatever waits"
        assert pair.message
        for client in made[:SERVED]:
            client.expect_closed()


# Connections


def test_connections_in_all(bluez, start, more_descriptors):
    """Root, or the service's own user, has no limit but the total."""
    bluez.set_adapter()
    service = start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, 4096)))
    lines = service.mark()
    threads = service.threads()
    with clients(service.adapter, IN_ALL) as made:
        for client in made:
            client.describe()
        assert service.threads() <= threads + 8, "idle connections cost no thread"
        with service.adapter() as late:
            late.expect_closed()
        assert lines_about(service, lines), "a log line says so"
        for client in made:
            client.describe()
        made[0].close()
        wait_until(lambda: served(service), "room for one more")
    assert service.stop() == 0


def served(service):
    try:
        with service.adapter() as client:
            client.describe()
            return True
    except (Closed, ConnectionError):
        return False


def test_connections_leave_a_quarter_of_the_descriptors(bluez, start, more_descriptors):
    bluez.set_adapter()
    service = start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (100, 4096)))
    with clients(service.adapter, 75) as made:
        for client in made:
            client.describe()
        with service.adapter() as late:
            late.expect_closed()
    assert service.stop() == 0


USER_SCRIPT = """
import socket, sys
path, count = sys.argv[1], int(sys.argv[2])
held = []
for _ in range(count):
    client = socket.socket(socket.AF_UNIX)
    client.connect(path)
    try:
        client.sendall(b'{"method":"com.kelvo.node.Describe"}\\0')
        answer = client.recv(65536)
    except ConnectionError:
        answer = b""
    held.append((client, bool(answer)))
print(sum(ok for _, ok in held), [number for number, (_, ok) in enumerate(held) if not ok], flush=True)
sys.stdin.read()
"""


@AS_ROOT
def test_connections_of_one_user(bluez, start, folder, more_descriptors):
    folder.chmod(0o755)
    groups = folder / "group"
    groups.write_text("root:x:0:\nbluetooth:x:4711:\n")
    bluez.set_adapter()
    service = start(prefix=["unshare", "-m", "sh", "-c", 'mount --bind "$0" /etc/group && exec "$@"', groups])
    lines = service.mark()
    script = folder / "user.py"
    script.write_text(USER_SCRIPT)

    def user(uid, count):
        return subprocess.Popen([sys.executable, script, service.adapter_node(), str(count)], user=uid, group=4711,
                                extra_groups=[], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    with user(4001, PER_USER + 1) as first:
        assert first.stdout.readline().strip() == f"{PER_USER} [{PER_USER}]"
        assert lines_about(service, lines), "a log line says so"
        with user(4002, PER_USER) as second:
            assert second.stdout.readline().strip() == f"{PER_USER} []", "another user has a limit of its own"
            with service.adapter() as root:
                root.describe()
            second.stdin.close()
        first.stdin.close()
    with user(4001, PER_USER) as again:
        assert again.stdout.readline().strip() == f"{PER_USER} []", "what is closed counts no more"
        again.stdin.close()


# Replies


def test_a_client_that_does_not_read_is_closed(bluez, start):
    bluez.set_adapter()
    service = start()
    lines = service.mark()
    with service.adapter() as client:
        request = json.dumps({"method": f"{SERVICE}.GetInterfaceDescription",
                              "parameters": {"interface": NODE}}).encode() + b"\0"
        client.socket.settimeout(stretched(10))
        with pytest.raises((BrokenPipeError, ConnectionResetError)):
            for _ in range(20000):
                client.send_raw(request)
    wait_until(lambda: lines_about(service, lines), "a log line about the limit")
    with service.adapter() as other:
        other.describe()


def test_one_larger_reply_may_stand_while_the_client_reads(bluez, start):
    bluez.set_adapter()
    with start().adapter() as client:
        count = 8000
        client.send_execute(*[nothing("x")] * count)
        reply = client.receive_raw(limit=10)
        assert len(reply) > UNSENT
        assert len(json.loads(reply)["parameters"]["values"]) == count
        client.describe()


def test_a_watch_that_nobody_reads_is_closed_and_the_others_are_told(bluez, start):
    path = bluez.set_device()
    service = start()
    with service.device() as lazy, service.device() as eager:
        lazy.watch()
        eager.watch()
        sockets = service.descriptors()["socket"]
        changes = 0
        while service.descriptors()["socket"] == sockets:
            for _ in range(200):
                bluez.properties_changed(path, {"Alias": ("s", f"{changes}")})
                changes += 1
            for _ in range(200):
                assert eager.change() == 0
            assert changes < 100000, "a watch that is never read is closed"
        with pytest.raises((Closed, ConnectionError)):
            while True:
                lazy.receive()


def test_idle_connections_cost_little(bluez, start, more_descriptors):
    bluez.set_adapter()
    service = start()
    with clients(service.adapter, 8) as warm:
        for client in warm:
            client.describe()
    before = service.resident()
    with clients(service.adapter, 400) as made:
        for client in made:
            client.describe()
        assert service.resident() - before < 4 * 1024, "400 idle connections in KiB"


CROWD = """
import socket, sys
made = []
for _ in range(int(sys.argv[2])):
    made.append(socket.socket(socket.AF_UNIX))
    made[-1].connect(sys.argv[1])
print("there", flush=True)
sys.stdin.read()
"""


def test_a_crowd_that_hangs_up_starts_no_crowd_of_threads(bluez, start, more_descriptors):
    """Threads stay for some seconds after their work, so that what a burst started is still to be counted."""
    bluez.set_adapter()
    service = start()
    threads = service.threads()
    sockets = service.descriptors()["socket"]
    for _ in range(20):
        with subprocess.Popen([sys.executable, "-c", CROWD, str(service.adapter_node()), str(IN_ALL)],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE) as crowd:
            assert crowd.stdout.readline() == b"there\n"
            crowd.kill()  # the kernel hangs up for all of them at once
        wait_until(lambda: service.descriptors()["socket"] == sockets, "connections that went with their client")
    assert service.threads() <= threads + 8
    with service.adapter() as client:
        client.describe()


def test_a_reply_is_whole_whatever_the_client_takes_at_a_time(bluez, start):
    bluez.set_device(Alias=("s", "x" * 200000))
    with start().device() as client:
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        for _ in range(3):
            assert client.value("NAME") == "x" * 200000
