"""The tree of sockets: where nodes are, whose they are, and what stands in their way."""

import os
import shutil
import signal
import socket
import stat
import subprocess

import pytest

from harness import varlink
from harness.bluez import hold
from harness.inotify import CREATE, DELETE, IS_DIR, MOVED_TO, Watch
from harness.process import BIN, bluetooth_group
from harness.varlink import Closed

AS_ROOT = pytest.mark.skipif(os.geteuid() != 0, reason="needs root: a namespace or another user")


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


@pytest.fixture
def open_folder(folder):
    """The test's folder, for other users too."""
    folder.chmod(0o755)
    return folder


@pytest.mark.short
def test_every_object_has_its_node(bluez, start):
    bluez.set_adapter("hci0", "00:1A:7D:DA:71:13")
    bluez.set_adapter("hci1", "00:1A:7D:DA:71:14")
    bluez.set_device("00:11:22:33:44:55")
    service = start()
    assert service.nodes() == ["adapters/00:1A:7D:DA:71:13/adapter", "adapters/00:1A:7D:DA:71:14/adapter",
                               "devices/00:11:22:33:44:55/device", "master", "service"]
    for name in service.nodes():
        assert stat.S_ISSOCK(os.lstat(service.node(name)).st_mode)


def test_modes_owner_and_group(bluez, start):
    bluez.set_adapter()
    bluez.set_device()
    service = start()
    group = bluetooth_group() if os.geteuid() == 0 and bluetooth_group() is not None else os.getegid()
    for name in service.nodes():
        info = os.lstat(service.node(name))
        assert mode(service.node(name)) == (0o600 if name == "service" else 0o660), name
        assert info.st_uid == os.geteuid(), name
        assert info.st_gid in ([group, os.getegid()] if name == "service" else [group]), name
    for folder, _, _ in os.walk(service.root / "bluetooth"):
        assert mode(folder) == 0o755, folder
    assert mode(service.root) == 0o755


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077, 0o777])
def test_modes_do_not_depend_on_the_umask(bluez, start, umask):
    bluez.set_adapter()
    service = start(prefix=["sh", "-c", f'umask {umask:04o}; exec "$@"', "sh"])
    assert mode(service.adapter_node()) == 0o660
    assert mode(service.node("service")) == 0o600
    assert mode(service.node("adapters")) == 0o755
    assert mode(service.root) == 0o755


@AS_ROOT
def test_without_a_bluetooth_group_nodes_belong_to_the_process(bluez, start, folder):
    groups = folder / "group"
    groups.write_text("root:x:0:\n")
    bluez.set_adapter()
    service = start(prefix=["unshare", "-m", "sh", "-c", 'mount --bind "$0" /etc/group && exec "$@"', groups])
    assert os.lstat(service.adapter_node()).st_gid == os.getegid()
    assert mode(service.adapter_node()) == 0o660


@AS_ROOT
def test_with_a_bluetooth_group_nodes_belong_to_it(bluez, start, folder):
    groups = folder / "group"
    groups.write_text("root:x:0:\nbluetooth:x:4711:\n")
    bluez.set_adapter()
    service = start(prefix=["unshare", "-m", "sh", "-c", 'mount --bind "$0" /etc/group && exec "$@"', groups])
    assert os.lstat(service.adapter_node()).st_gid == 4711
    assert os.lstat(service.node("master")).st_gid == 4711


@AS_ROOT
def test_a_group_with_thousands_of_members_is_found_too(bluez, start, folder):
    groups = folder / "group"
    members = ",".join(f"member{number:05}" for number in range(10_000))
    groups.write_text(f"root:x:0:\nbluetooth:x:4711:{members}\n")
    bluez.set_adapter()
    service = start(prefix=["unshare", "-m", "sh", "-c", 'mount --bind "$0" /etc/group && exec "$@"', groups])
    assert os.lstat(service.adapter_node()).st_gid == 4711


@AS_ROOT
def test_anybody_can_go_through_the_tree_and_nobody_else_can_lock_it(bluez, start, open_folder):
    bluez.set_adapter()
    bluez.set_device()
    service = start()
    found = subprocess.run(["find", service.root, "-type", "s"], user="nobody", group="nogroup", extra_groups=[],
                           capture_output=True, text=True)
    assert (found.returncode, found.stderr) == (0, "")
    assert sorted(found.stdout.splitlines()) == [str(service.node(name)) for name in service.nodes()]
    for name in ("LinuxBTAdapters", "LinuxBTDevices", "LinuxBTService"):
        locked = subprocess.run(["flock", "--nonblock", service.root / f".{name}.lock", "true"], user="nobody",
                                group="nogroup", extra_groups=[], capture_output=True, text=True)
        assert "Permission denied" in locked.stderr and locked.returncode != 0


def test_what_comes_and_goes_is_told_by_inotify(bluez, start):
    """A node comes by a move, ready as it is; a folder is made."""
    first = bluez.set_device("00:11:22:33:44:01")
    service = start()
    with Watch(service.node("devices")) as devices, Watch(service.node("devices/00:11:22:33:44:01")) as folder:
        bluez.remove(first)
        assert folder.next() == (DELETE, "device")
        assert devices.next() == (DELETE | IS_DIR, "00:11:22:33:44:01")
    bluez.set_device("00:11:22:33:44:02", announce=True)
    service.wait_node(service.device_node("00:11:22:33:44:02"))
    with Watch(service.node("devices")) as devices:
        os.mkdir(service.node("devices/00:11:22:33:44:03"))
        assert devices.next() == (CREATE | IS_DIR, "00:11:22:33:44:03")
        with Watch(service.node("devices/00:11:22:33:44:03")) as folder:
            bluez.set_device("00:11:22:33:44:03", announce=True)
            assert folder.next() == (MOVED_TO, "device")
            with service.device("00:11:22:33:44:03") as client:
                assert client.value("ADDRESS") == "00:11:22:33:44:03"


def test_missing_parents_of_the_root_are_made(bluez, start, folder):
    root = folder / "not" / "there" / "yet"
    start(root=root)
    assert mode(folder / "not") == mode(folder / "not" / "there") == mode(root) == 0o755


def test_a_root_longer_than_a_socket_address_works(bluez, start, folder):
    root = folder / ("a" * 120) / ("b" * 120)
    bluez.set_adapter()
    service = start(root=root)
    with service.adapter() as client:
        assert client.value("ADDRESS") == "00:1A:7D:DA:71:13"
    assert service.stop() == 0
    assert not (root / "bluetooth").exists()


def test_a_relative_root_works(bluez, launch, folder):
    service = launch(root=folder / "nodes", env={"NODE_ROOT": "nodes"}, cwd=folder).wait_ready()
    assert service.nodes() == ["master", "service"]


@AS_ROOT
@pytest.mark.parametrize("value", [None, ""], ids=["unset", "empty"])
def test_the_root_of_root_is_run_nodes(bluez, launch, value):
    """In a namespace with a /run of its own; what is there is seen through /proc."""
    service = launch(env={"NODE_ROOT": value},
                     prefix=["unshare", "-m", "sh", "-c", 'mount -t tmpfs none /run && exec "$@"', "sh"])
    service.wait_ready()
    assert sorted(os.listdir(f"/proc/{service.pid}/root/run/nodes/bluetooth")) == ["master", "service"]


@AS_ROOT
def test_the_root_of_anybody_else_is_in_the_runtime_folder(bluez, launch, open_folder):
    program = shutil.copy(BIN / "bluetooth-service", open_folder)
    runtime = open_folder / "runtime"
    runtime.mkdir()
    shutil.chown(runtime, "nobody")
    service = launch(root=runtime / "nodes", env={"NODE_ROOT": None, "XDG_RUNTIME_DIR": str(runtime)},
                     prefix=["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                             "sh", "-c", f'shift $(($# - 1)); exec "{program}"', "sh"])
    service.wait_ready()
    assert service.nodes() == ["master", "service"]
    assert service.stop() == 0


def test_nodes_come_and_go_with_their_folders(bluez, start):
    adapter = bluez.set_adapter()
    first = bluez.set_device("00:11:22:33:44:01")
    second = bluez.set_device("00:11:22:33:44:02")
    service = start()
    bluez.remove(first)
    service.wait_gone(service.node("devices/00:11:22:33:44:01"))
    assert service.device_node("00:11:22:33:44:02").exists()
    bluez.remove(second)
    service.wait_gone(service.node("devices"))
    bluez.remove(adapter)
    service.wait_gone(service.node("adapters"))
    assert service.nodes() == ["master", "service"]
    bluez.set_device("00:11:22:33:44:01", announce=True)
    service.wait_node(service.device_node("00:11:22:33:44:01"))


def test_no_client_ever_meets_a_socket_that_refuses(bluez, start):
    """A client that connects as soon as a name is there is served, time after time."""
    service = start()
    node = str(service.device_node())
    for _ in range(100):
        path = bluez.set_device(announce=True)
        while True:
            try:
                client = varlink.Client(node)
                break
            except FileNotFoundError:
                assert service.running
        with client:
            assert client.value("ADDRESS") == "00:11:22:33:44:55"
            bluez.remove(path)
            client.expect_closed()
        service.wait_gone(service.device_node())


def test_withdrawing_closes_idle_connections_and_ends_watches(bluez, start):
    path = bluez.set_device()
    service = start()
    with service.device() as idle, service.device() as watching:
        idle.describe()
        watching.watch()
        bluez.remove(path)
        idle.expect_closed()
        reply = watching.receive()
        assert reply["error"] == "com.kelvo.node.Withdrawn"
        watching.expect_closed()


def test_withdrawing_lets_a_request_in_progress_end_with_its_answer(bluez, start):
    adapter = bluez.set_adapter()
    bluez.answer("StartDiscovery", lambda call: None)
    service = start()
    with service.adapter() as client:
        client.send_execute(varlink.action("INQUIRY_START"))
        asked = bluez.wait_call("StartDiscovery")
        client.send("com.kelvo.node.Describe")
        bluez.remove(adapter)
        service.wait_gone(service.adapter_node())
        service.wait_log(f"Adapter removed: {adapter}", level=1)
        asked.reply()
        assert client.done("INQUIRY_START") == 0
        client.expect_closed()  # The call behind it is dropped.


@pytest.mark.parametrize("kind", ["file", "folder", "link", "dangling link", "fifo"])
def test_what_is_no_socket_of_ours_stays_and_the_node_is_left_out(bluez, launch, root, kind):
    bluez.set_device("00:11:22:33:44:01")
    bluez.set_device("00:11:22:33:44:02")
    place = root / "bluetooth/devices/00:11:22:33:44:01/device"
    place.parent.mkdir(parents=True)
    target = root / "target"
    {"file": lambda: place.write_text("mine"), "folder": lambda: (place / "mine").mkdir(parents=True),
     "link": lambda: (target.write_text("mine"), place.symlink_to(target)),
     "dangling link": lambda: place.symlink_to(target), "fifo": lambda: os.mkfifo(place)}[kind]()
    before = os.lstat(place)
    service = launch().wait_ready()
    after = os.lstat(place)
    assert (before.st_ino, before.st_mode) == (after.st_ino, after.st_mode)
    assert service.lines.wait(lambda line: line.level != 1 and "00:11:22:33:44:01" in line.raw,
                              "a log line that names the node that was left out")
    with service.device("00:11:22:33:44:02") as client:
        assert client.value("ADDRESS") == "00:11:22:33:44:02"
    assert service.stop() == 0
    assert os.lstat(place).st_ino == before.st_ino
    if kind == "link":
        assert target.read_text() == "mine"
    elif kind == "dangling link":
        assert not target.exists()


def test_a_signal_ends_the_service_at_once_though_its_own_node_was_left_out(bluez, launch, root):
    """Also while the dispatch thread waits for BlueZ."""
    (root / "bluetooth").mkdir(parents=True)
    (root / "bluetooth/service").write_text("mine")
    service = launch().wait_ready()
    bluez.answer("Get", hold)
    bluez.set_adapter(announce=True)
    bluez.wait_call("Get")
    service.send_signal(signal.SIGTERM)
    assert service.wait(limit=1) == 0
    assert "Service terminate requested" in service.texts()
    assert (root / "bluetooth/service").read_text() == "mine"


def test_a_link_in_the_place_of_a_folder_is_not_followed(bluez, launch, root, folder):
    elsewhere = folder / "elsewhere"
    elsewhere.mkdir()
    (root / "bluetooth").mkdir(parents=True)
    (root / "bluetooth/devices").symlink_to(elsewhere)
    bluez.set_device()
    service = launch().wait_ready()
    assert os.listdir(elsewhere) == []
    with service.control() as client:
        client.describe()


@pytest.mark.parametrize("address", ["", "..", ".", "a/b", "x" * 300, "line\nbreak"])
def test_an_address_that_cannot_be_a_name_leaves_the_node_out(bluez, start, address):
    bluez.set_device("00:11:22:33:44:02")
    bluez.set_device(address, path="/org/bluez/hci0/dev_bad")
    service = start()
    assert service.nodes() == ["devices/00:11:22:33:44:02/device", "master", "service"]
    assert [line.raw for line in service.logged() if line.level not in (1, None)], "a log line says so"


@AS_ROOT
def test_a_full_file_system_leaves_nodes_out(bluez, launch, root):
    """Room for some files only: what does not fit is left out, with a line, and nothing half-made stays."""
    root.mkdir()
    service = launch(prefix=["unshare", "-m", "sh", "-c", 'mount -t tmpfs -o nr_inodes=18 none "$0" && exec "$@"',
                             root])
    service.wait_ready()
    inside = f"/proc/{service.pid}/root{root}/bluetooth"
    paths = [bluez.set_device(f"00:11:22:33:44:{number:02X}", announce=True) for number in range(10)]
    bluez.settle()
    found = [os.path.join(path, name) for path, _, names in os.walk(inside) for name in names]
    left_out = [line.raw for line in service.logged() if line.level not in (1, None)]
    assert len(found) + len(left_out) == 2 + len(paths) and len(found) > 2 and left_out
    for node in found:
        with varlink.Client(node) as client:
            client.describe()
    empty = [path for path, folders, names in os.walk(inside) if not folders and not names]
    assert not empty, "nothing half-made stays"
    # With room again the next one fits.
    for path in paths[:3]:
        bluez.remove(path)
    bluez.set_device("00:11:22:33:44:AA", announce=True)
    bluez.settle()
    with varlink.Client(f"{inside}/devices/00:11:22:33:44:AA/device") as client:
        assert client.value("ADDRESS") == "00:11:22:33:44:AA"


@AS_ROOT
def test_a_root_on_a_read_only_file_system_cannot_be_used(bluez, launch, root):
    root.mkdir()
    service = launch(prefix=["unshare", "-m", "sh", "-c", 'mount -t tmpfs -o ro none "$0" && exec "$@"', root])
    assert service.wait() == 1
    assert str(root) in service.output() + service.errors


# One server name, one process


def test_a_second_service_is_refused_and_the_first_goes_on(bluez, start, launch):
    bluez.set_adapter()
    first = start()
    inode = os.lstat(first.adapter_node()).st_ino
    with first.adapter() as client:
        client.describe()
        second = launch()
        assert second.wait() == 1
        assert str(first.root) in second.output()
        assert client.value("ADDRESS") == "00:1A:7D:DA:71:13"
    assert os.lstat(first.adapter_node()).st_ino == inode
    assert first.nodes() == ["adapters/00:1A:7D:DA:71:13/adapter", "master", "service"]


def test_other_roots_are_no_matter(bluez, start, folder):
    first = start(root=folder / "one")
    second = start(root=folder / "two")
    assert first.nodes() == second.nodes() == ["master", "service"]


def test_what_a_killed_service_left_is_cleared_by_the_next(bluez, start):
    bluez.set_adapter()
    gone = bluez.set_device("00:11:22:33:44:01")
    bluez.set_device("00:11:22:33:44:02")
    first = start()
    first.popen.kill()
    first.wait()
    assert first.device_node("00:11:22:33:44:01").exists(), "a killed service leaves its nodes"
    del bluez.objects[gone]
    second = start()
    assert second.nodes() == ["adapters/00:1A:7D:DA:71:13/adapter", "devices/00:11:22:33:44:02/device", "master",
                              "service"]
    assert not second.node("devices/00:11:22:33:44:01").exists()
    with second.device("00:11:22:33:44:02") as client:
        assert client.value("ADDRESS") == "00:11:22:33:44:02"


def test_the_lock_of_a_server_is_a_hidden_file_of_the_root(bluez, start):
    service = start()
    files = [name for name in os.listdir(service.root) if name != "bluetooth"]
    assert files and all(name.startswith(".") for name in files), files


def test_a_foreign_socket_in_use_is_not_taken_over(bluez, launch, root):
    """A socket that somebody serves in the place of a node: the node's owner is who holds the lock, so it is cleared
    or left out, but it never breaks the start."""
    place = root / "bluetooth/master"
    place.parent.mkdir(parents=True)
    server = socket.socket(socket.AF_UNIX)
    server.bind(str(place))
    server.listen()
    service = launch().wait_ready()
    with service.control() as client:
        try:
            client.describe()
        except Closed:
            pytest.fail("the control node is not served")
    server.close()
