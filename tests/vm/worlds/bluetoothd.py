"""The real thing: Debian's bluetoothd and the kernel, with two emulated controllers. Only in the virtual machine."""

import contextlib
import pathlib
import shutil
import signal
import subprocess

from worlds import management
from worlds.facts import ADAPTER, AGENT, AGENT_MANAGER, FIRST_PATH, KEYBOARD, PROFILE, PROFILE_MANAGER, SERIAL_PORT
from worlds.management import Management
from worlds.world import World

from harness.dbus import BusConnection, BusError
from harness.waiting import Record

DAEMON = "/usr/libexec/bluetooth/bluetoothd"
# How the bus starts org.bluez when it is called; the machine's own file leaves that to systemd.
ACTIVATION = pathlib.Path("/usr/share/dbus-1/system-services/org.bluez.service")


class Bus:
    """What BusConnection needs of a bus."""

    path = "/run/dbus/system_bus_socket"
    address = f"unix:path={path}"


class OtherSide:
    """The user of the second controller: the default agent, and a program that offers a profile."""

    def __init__(self, bus):
        self._asked = Record()
        self._seen = 0
        self._opened = Record()
        self._lets_in = True
        self._answer = ...
        self._held = []
        self._connection = BusConnection(bus, on_call=self._take, unix_fds=True)
        for member, signature, body in (("RegisterAgent", "os", ("/other/side", "KeyboardDisplay")),
                                        ("RequestDefaultAgent", "o", ("/other/side",))):
            self._connection.call("org.bluez", "/org/bluez", AGENT_MANAGER, member, signature, body, limit=20)

    def offer_serial_port(self):
        """From now on both controllers offer it and can connect it. Connections have to be let in."""
        self._connection.call("org.bluez", "/org/bluez", PROFILE_MANAGER, "RegisterProfile", "osa{sv}",
                              ("/other/profile", SERIAL_PORT, {"Name": ("s", "Serial Port"), "Channel": ("q", 22),
                                                               "RequireAuthentication": ("b", False),
                                                               "RequireAuthorization": ("b", True)}), limit=20)

    def let_in(self, willing):
        """Whether the user allows what asks to be connected."""
        self._lets_in = willing

    def connection(self, device):
        """The open connection of a device's serial port, as a descriptor."""
        call = self._opened.wait(lambda opened: opened.args[0] == device, f"a serial port of {device}", limit=20)
        return call.args[1].to_raw_fd()

    def type(self, pincode):
        """What the user types at the keyboard when it asks; None: rejects; Ellipsis: nothing for now."""
        self._answer = pincode
        if pincode is not ...:
            for call in self._held:
                self._reply(call)
            self._held.clear()

    def fail_with(self, pincode):
        """Answers one question with what is wrong; the next one stays open."""
        kernel = Management()
        self.type(pincode)
        self._answer = ...
        kernel.wait_event(0, management.CONNECT_FAILED, management.AUTHENTICATION_FAILED)
        kernel.close()
        # bluetoothd does not learn on this side that its answer was wrong, and would refuse the next question.
        with contextlib.suppress(BusError):
            self._connection.call("org.bluez", "/org/bluez/hci1", ADAPTER, "RemoveDevice", "o", (FIRST_PATH,), limit=20)

    def put_away(self):
        """Who was asked for the pincode of a pairing that was cancelled closes the question: bluetoothd leaves it open."""
        held, self._held = self._held, []
        for call in held:
            call.error("org.bluez.Error.Canceled", "put away")

    def wait_asked(self):
        """Returns when the keyboard waits for the pincode of a pairing that has begun since the last time."""
        self._asked.wait(lambda _: True, "the other side to be asked for its pincode", start=self._seen, limit=20)
        self._seen = len(self._asked)

    def _reply(self, call):
        if self._answer is None:
            call.error("org.bluez.Error.Rejected", "rejected by the user")
        else:
            call.reply("s", self._answer)

    def _take(self, call):
        if call.interface == AGENT and call.member == "RequestPinCode":
            if self._answer is ...:
                self._held.append(call)
            else:
                self._reply(call)
            self._asked.add(call)
        elif call.interface == AGENT and call.member == "AuthorizeService" and not self._lets_in:
            call.error("org.bluez.Error.Rejected", "not let in")
        elif call.interface == AGENT and call.member in ("RequestAuthorization", "AuthorizeService", "Cancel",
                                                         "Release", "RequestConfirmation"):
            call.reply()
        elif call.interface == PROFILE:
            if call.member == "NewConnection":
                self._opened.add(call)
            call.reply()
        else:
            call.error("org.bluez.Error.Rejected", "not asked for here")

    def close(self):
        self._connection.close()


class Bluetoothd(World):
    """bluetoothd on the system bus of the virtual machine."""

    name = "bluetoothd"

    def __init__(self, out):
        super().__init__(Bus, out)
        # In memory first: what is written to the machine outside costs a round trip for each line.
        self._logs = pathlib.Path("/run/vm-logs")
        self._logs.mkdir()
        self._kept = {}
        self._daemon = None
        self._emulator = None
        self._management = Management()
        self._trace = subprocess.Popen(["btmon", "-w", str(self._logs / "btmon.snoop")], stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def start_bluez(self):
        with open(self._logs / "bluetoothd.log", "ab") as log:
            self._daemon = subprocess.Popen([DAEMON, "-n", "-d"], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.wait_bluez()

    def stop_bluez(self, sig=signal.SIGTERM):
        if self._daemon is not None:
            self._daemon.send_signal(sig)
            self._daemon.wait(20)
            self._daemon = None
            self.wait_bluez(there=False)

    def activatable(self):
        """From now on the bus starts bluetoothd when somebody calls it, as it does through systemd elsewhere."""
        ACTIVATION.write_text(f"[D-BUS Service]\nName=org.bluez\nUser=root\nExec={DAEMON}\n", encoding="ascii")
        self.user.call_bus("ReloadConfig")

    def plug(self):
        with open(self._logs / "btvirt.log", "ab") as log:
            self._emulator = subprocess.Popen(["btvirt", "-l2"], stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def unplug(self):
        if self._emulator is not None:
            self._emulator.kill()
            self._emulator.wait(20)
            self._emulator = None

    def broken(self):
        """btvirt crashes now and then, in the middle of an inquiry for one; controllers and all are gone then."""
        code = None if self._emulator is None else self._emulator.poll()
        return "" if code is None else f"the emulator ended by itself with {code}"

    def prepare(self, role=None):
        """bluetoothd with two powered controllers that know nothing of each other, the second one in this role."""
        self.plug()
        self.start_bluez()
        self.wait_controllers()
        if role is not None:
            self.dress(role)
            self.other_side = OtherSide(self.bus)

    def dress(self, role):
        """Makes the second controller what it is to be; bluetoothd has no say in it."""
        legacy = role == KEYBOARD
        for controller in (0, 1):
            # Secure connections can be switched only while secure simple pairing is on.
            self._management.command(controller, management.SET_SSP, True)
            self._management.command(controller, management.SET_SECURE_CONNECTIONS, False)
            self._management.command(controller, management.SET_SSP, not legacy)
            # Without link security the emulator goes on with secure simple pairing.
            self._management.switch(controller, management.SET_LINK_SECURITY, legacy)
            self._management.command(controller, management.SET_LE, False)
            self._management.command(controller, management.SET_BONDABLE, True)
        self._management.command(1, management.SET_CLASS, *((5, 0x40) if legacy else (4, 4)), form="BB")
        self._management.command(1, management.SET_CONNECTABLE, True)
        self._management.command(1, management.SET_DISCOVERABLE, True, 0, form="BH")

    def _keep_logs(self):
        """Brings what was logged since the last time to the folder outside."""
        for log in self._logs.iterdir():
            with open(log, "rb") as new, open(self.out / log.name, "ab") as kept:
                new.seek(self._kept.get(log.name, 0))
                kept.write(new.read())
                self._kept[log.name] = new.tell()

    def clear(self):
        if self.other_side is not None:
            self.other_side.close()
            self.other_side = None
        self.stop_bluez(signal.SIGKILL)
        if ACTIVATION.exists():
            ACTIVATION.unlink()
            self.user.call_bus("ReloadConfig")
        # One that the bus started is no child of ours.
        while self.user.call_bus("NameHasOwner", "s", ("org.bluez",)).args[0]:
            pid = self.user.call_bus("GetConnectionUnixProcessID", "s", ("org.bluez",)).args[0]
            subprocess.run(["kill", "-KILL", str(pid)], check=False)
            self.wait_bluez(there=False)
        self.unplug()
        for entry in pathlib.Path("/var/lib/bluetooth").glob("*"):
            shutil.rmtree(entry)
        self._keep_logs()

    def close(self):
        super().close()
        self._management.close()
        self._trace.terminate()
        self._trace.wait(20)
        self._keep_logs()
