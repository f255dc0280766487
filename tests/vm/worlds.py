"""The BlueZ under the service: the real bluetoothd in the virtual machine, or the simulator. Scenarios see no difference.

Every world has two controllers that find each other. The second one plays the remote device.
"""

import array
import fcntl
import pathlib
import signal
import subprocess
import sys
import tempfile
import termios

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "scenario"))

from harness.dbus import BusConnection, BusError, Monitor, PrivateBus  # noqa: E402
from harness.process import BIN, Service  # noqa: E402
from harness.waiting import Record, wait_until  # noqa: E402
from jeepney.low_level import MessageType  # noqa: E402

AGENT_PATH = "/com/kelvo/bluetooth/service"

ADAPTER = "org.bluez.Adapter1"
DEVICE = "org.bluez.Device1"
AGENT = "org.bluez.Agent1"
PROFILE = "org.bluez.Profile1"
PROPERTIES = "org.freedesktop.DBus.Properties"

# What the emulator's two controllers are called.
FIRST = "00:AA:01:00:00:00"
SECOND = "00:AA:01:01:00:01"
SECOND_PATH = "/org/bluez/hci0/dev_" + SECOND.replace(":", "_")
FIRST_PATH = "/org/bluez/hci1/dev_" + FIRST.replace(":", "_")

# Advanced Audio Distribution's remote control: what a second bluetoothd controller offers and lets others connect.
OFFERED = "0000110e-0000-1000-8000-00805f9b34fb"
NOT_OFFERED = "0000110f-0000-1000-8000-00805f9b34fb"
KEYBOARD = "keyboard"
HEADSET = "headset"

SERIAL_PORT = "00001101-0000-1000-8000-00805f9b34fb"


class Address:
    """What BusConnection needs of a bus."""

    def __init__(self, path):
        self.path = path
        self.address = f"unix:path={path}"


class OtherSide:
    """The user of the second controller: the default agent, on a connection of its own."""

    def __init__(self, bus):
        self.shown = Record()
        self.asked = Record()
        self._answer = None
        self._held = None
        self.connection = BusConnection(bus, on_call=self._take)

    def become_default_agent(self):
        for member, signature, body in (("RegisterAgent", "os", ("/other/side", "KeyboardDisplay")),
                                        ("RequestDefaultAgent", "o", ("/other/side",))):
            self.connection.call("org.bluez", "/org/bluez", "org.bluez.AgentManager1", member, signature, body)

    def offer_serial_port(self):
        """Registers a profile whose connections really come about, on both sides."""
        self.connection.call("org.bluez", "/org/bluez", "org.bluez.ProfileManager1", "RegisterProfile", "osa{sv}",
                             ("/other/profile", SERIAL_PORT, {"Name": ("s", "Serial Port"),
                                                              "RequireAuthentication": ("b", False),
                                                              "RequireAuthorization": ("b", False)}))

    def type(self, pincode):
        """What the user types at the keyboard when it is asked; None: rejects; Ellipsis: does not answer."""
        self._answer = pincode
        if self._held is not None and pincode is not Ellipsis:
            call, self._held = self._held, None
            self._reply(call)

    def _reply(self, call):
        if self._answer is None:
            call.error("org.bluez.Error.Rejected", "rejected by the user")
        else:
            call.reply("s", self._answer)

    def _take(self, call):
        if call.interface == AGENT and call.member == "RequestPinCode":
            self.asked.add(call)
            if self._answer is Ellipsis:
                self._held = call
            else:
                self._reply(call)
        elif call.interface == AGENT and call.member in ("RequestAuthorization", "AuthorizeService", "Cancel",
                                                         "Release", "RequestConfirmation"):
            call.reply()
        elif call.interface == PROFILE:
            call.reply()
        else:
            call.error("org.bluez.Error.Rejected", "not asked for here")

    def close(self):
        self.connection.close()


class World:
    """What both worlds share: the bus calls a scenario makes beside the service."""

    def __init__(self, bus, out):
        self.bus = bus
        self.out = pathlib.Path(out)
        self.user = BusConnection(bus)
        self.monitor = Monitor(bus)
        self.other_side = None

    def call(self, path, interface, member, signature="", *body, limit=20):
        return self.user.call("org.bluez", path, interface, member, signature, body, limit=limit)

    def property(self, path, interface, name):
        """The value, or None where there is no such object or property now."""
        try:
            return self.call(path, PROPERTIES, "Get", "ss", interface, name).args[0][1]
        except BusError:
            return None

    def set_powered(self, adapter, on):
        self.call(f"/org/bluez/{adapter}", PROPERTIES, "Set", "ssv", ADAPTER, "Powered", ("b", on))
        wait_until(lambda: self.property(f"/org/bluez/{adapter}", ADAPTER, "Powered") is on, f"{adapter} powered: {on}")

    def remove_device(self):
        """Forgets the second controller on the first, and the first on the second."""
        for adapter, device in (("hci0", SECOND_PATH), ("hci1", FIRST_PATH)):
            try:
                self.call(f"/org/bluez/{adapter}", ADAPTER, "RemoveDevice", "o", device)
            except BusError as error:
                if not error.name.endswith(("DoesNotExist", "UnknownObject", "UnknownMethod")):
                    raise

    def wait_controllers(self, count=2):
        for number in range(count):
            wait_until(lambda n=number: self.property(f"/org/bluez/hci{n}", ADAPTER, "Powered") is True,
                       f"controller hci{number} powered", limit=20)

    # What the service asked

    def begin(self):
        """The next scenario begins: what was on the bus before does not count."""
        self._began = len(self.monitor.messages)

    def service_messages(self):
        """Every method call of the services of this scenario, in order. A service is who registers its agent."""
        self.user.round_trip()
        calls = [call for call in self.monitor.messages.all(self._began) if call.kind is MessageType.method_call]
        senders = {call.sender for call in calls if call.member == "RegisterAgent" and AGENT_PATH in call.args}
        return [call for call in calls if call.sender in senders]

    def service_calls(self):
        """The same as text, for the log and for the comparison of two worlds."""
        return [[call.path or "", call.member, *map(str, call.args)] for call in self.service_messages()]

    def calls_of_service(self, member):
        return sum(call.member == member for call in self.service_messages())

    def wait_calls_of_service(self, member, count, limit=20):
        wait_until(lambda: self.calls_of_service(member) >= count, f"{count} calls {member}", limit)

    def close(self):
        for connection in (self.other_side, self.user, self.monitor):
            if connection is not None:
                connection.close()


class Bluetoothd(World):
    """The real thing: Debian's bluetoothd and the kernel, with two emulated controllers. Only in the virtual machine."""

    DAEMON = ["/usr/libexec/bluetooth/bluetoothd", "-n", "-d"]
    name = "bluetoothd"

    def __init__(self, out):
        super().__init__(Address("/run/dbus/system_bus_socket"), out)
        self._daemon = None
        self._emulator = None
        self._role = None
        self._traces = subprocess.Popen(["btmon", "-w", str(self.out / "btmon.snoop")], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def start_bluez(self):
        with open(self.out / "bluetoothd.log", "ab") as log:
            self._daemon = subprocess.Popen(self.DAEMON, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: self.user.call_bus("NameHasOwner", "s", ("org.bluez",)).args[0], "org.bluez on the bus", 20)

    def set_powered(self, adapter, on):
        super().set_powered(adapter, on)
        self._role = None  # a power cycle forgets some of it

    def stop_bluez(self, sig=signal.SIGTERM):
        self._role = None
        if self._daemon is not None:
            self._daemon.send_signal(sig)
            self._daemon.wait(10)
            self._daemon = None

    def plug(self):
        with open(self.out / "btvirt.log", "ab") as log:
            self._emulator = subprocess.Popen(["btvirt", "-l2"], stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def unplug(self):
        if self._emulator is not None:
            self._emulator.kill()
            self._emulator.wait(10)
            self._emulator = None

    def prepare(self, role=None):
        """A daemon with two powered controllers that know nothing of each other, the second one in this role.

        KEYBOARD wants a pincode typed, HEADSET pairs without one, None is nobody in particular.
        """
        if self._daemon is None:
            self.start_bluez()
        if self._emulator is None:
            self.plug()
            self._role = None
        self.wait_controllers()
        self.remove_device()
        if role is not None and role != self._role:
            # Without linksec the emulator goes on with secure simple pairing.
            security = ("ssp off", "linksec on", "sc off") if role == KEYBOARD else ("ssp on",)
            for index in (0, 1):
                self._manage(index, *security, "le off", "bondable on")
            self._manage(1, "class 5 64" if role == KEYBOARD else "class 4 4", "connectable on", "discov on")
        self._role = role or self._role
        if role is not None:
            self._user()

    def _user(self):
        if self.other_side is not None:
            self.other_side.close()
        self.other_side = OtherSide(self.bus)
        self.other_side.become_default_agent()

    @staticmethod
    def _manage(index, *commands):
        for command in commands:
            # It reads commands from its standard input unless that is empty.
            subprocess.run(["btmgmt", "--index", str(index), *command.split()], stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=20, check=False)

    def reset(self):
        """A fresh daemon and fresh controllers for the next scenario."""
        if self.other_side is not None:
            self.other_side.close()
            self.other_side = None
        self.stop_bluez(signal.SIGKILL)
        subprocess.run(["pkill", "-KILL", "-x", "bluetoothd"], check=False)  # one that the bus started
        self.unplug()
        for entry in pathlib.Path("/var/lib/bluetooth").glob("*"):
            subprocess.run(["rm", "-rf", str(entry)], check=True)

    def recover(self):
        """After a scenario that failed nothing is trusted."""
        self.reset()

    def activatable(self, on):
        """Whether the bus starts bluetoothd when somebody calls it, which systemd does on a real machine."""
        text = "Exec=" + ("/usr/libexec/bluetooth/bluetoothd" if on else "/bin/false")
        pathlib.Path("/usr/share/dbus-1/system-services/org.bluez.service").write_text(
            f"[D-BUS Service]\nName=org.bluez\nUser=root\n{text}\n", encoding="ascii")
        self.user.call_bus("ReloadConfig")

    def close(self):
        self.reset()
        self._traces.terminate()
        self._traces.wait(10)
        super().close()


class SimulatedUser:
    """The user of the remote device, who types at the simulator's keyboard."""

    def __init__(self, world):
        self._world = world

    def type(self, pincode):
        if pincode is ...:
            return
        # Whoever rejects types nothing that fits.
        code = "rejected" if pincode is None else pincode
        self._world.control("TypePinCode", "os", SECOND_PATH, code)

    def close(self):
        """Nothing of its own."""


class Simulator(World):
    """bluez-simulator on a private bus."""

    name = "simulator"

    def __init__(self, out):
        self._folder = tempfile.TemporaryDirectory(prefix="btn-")
        self._own_bus = PrivateBus(pathlib.Path(self._folder.name))
        super().__init__(self._own_bus, out)
        self._process = None
        self._plugged = False

    def control(self, member, signature="", *body):
        return self.user.call("org.bluez", "/com/kelvo/simulator", "com.kelvo.simulator1", member, signature, body)

    def start_bluez(self):
        with open(self.out / "simulator.log", "ab") as log:
            self._process = subprocess.Popen([BIN / "bluez-simulator", "--bus", self.bus.address, "-vv"],
                                             stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: self.user.call_bus("NameHasOwner", "s", ("org.bluez",)).args[0], "org.bluez on the bus", 20)
        self._plugged = True

    def stop_bluez(self, sig=signal.SIGTERM):
        if self._process is not None:
            self._process.send_signal(sig)
            self._process.wait(10)
            self._process = None

    def plug(self):
        for name, address in (("hci0", FIRST), ("hci1", SECOND)):
            self.control("AddAdapter", "ssa{sv}", name, address, {})
        self._plugged = True

    def unplug(self):
        for name in ("hci0", "hci1"):
            self.control("RemoveAdapter", "o", f"/org/bluez/{name}")
        self._plugged = False

    def prepare(self, role=None):
        if self._process is None:
            self.start_bluez()
        if not self._plugged:
            self.plug()
        self.control("Reset")
        self.wait_controllers()
        if role is not None:
            self.control("PutInRange", "ossua{sv}", "/org/bluez/hci0", SECOND, role, 100, {})
            self.other_side = SimulatedUser(self)

    def reset(self):
        self.stop_bluez(signal.SIGKILL)

    def recover(self):
        self.reset()

    def close(self):
        self.reset()
        super().close()
        self._own_bus.stop()
        self._folder.cleanup()


class SuiteService(Service):
    """The service, with what the suite wants to know of it."""

    def wait_waiting(self, client):
        """Returns when the service has read what the client sent."""
        unread = array.array("i", [0])

        def taken():
            fcntl.ioctl(client.socket.fileno(), termios.TIOCOUTQ, unread)
            return unread[0] == 0

        wait_until(taken, "the service to read the call")


def make(name, out):
    return {"bluetoothd": Bluetoothd, "simulator": Simulator}[name](out)
