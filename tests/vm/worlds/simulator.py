"""bluez-simulator on a private bus."""

import pathlib
import signal
import subprocess
import tempfile

from worlds.facts import FIRST, HEADSET, KEYBOARD, SECOND, SECOND_PATH
from worlds.world import World

from harness.dbus import PrivateBus
from harness.process import BIN

HCI0 = "/org/bluez/hci0"


class SimulatedUser:
    """The user of the remote device, who types at the simulator's keyboard."""

    def __init__(self, world):
        self._world = world

    def put_away(self):
        """Nor is it left asking."""

    def wait_asked(self):
        """A simulated keyboard takes a pincode as soon as there is one."""

    def type(self, pincode):
        if pincode is not ...:
            # Who rejects types nothing that fits.
            self._world.control("TypePinCode", "os", SECOND_PATH, "" if pincode is None else pincode)


class Simulator(World):
    """The simulator, told to be what bluetoothd with its emulated controllers is."""

    name = "simulator"

    def __init__(self, out):
        self._folder = tempfile.TemporaryDirectory(prefix="btn-")
        self._own_bus = PrivateBus(pathlib.Path(self._folder.name))
        super().__init__(self._own_bus, out)
        self._process = None

    def control(self, member, signature="", *body):
        return self.user.call("org.bluez", "/com/kelvo/simulator", "com.kelvo.simulator1", member, signature, body)

    def start_bluez(self):
        with open(self.out / "simulator.log", "ab") as log:
            self._process = subprocess.Popen([BIN / "bluez-simulator", "--bus", self.bus.address, "-vv"],
                                             stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.wait_bluez()

    def stop_bluez(self, sig=signal.SIGTERM):
        if self._process is not None:
            self._process.send_signal(sig)
            self._process.wait(20)
            self._process = None
            self.wait_bluez(there=False)

    def plug(self):
        for name, address in (("hci0", FIRST), ("hci1", SECOND)):
            self.control("AddAdapter", "ssa{sv}", name, address, {})

    def unplug(self):
        for name in ("hci0", "hci1"):
            self.control("RemoveAdapter", "o", f"/org/bluez/{name}")

    def prepare(self, role=None):
        self.start_bluez()
        self.wait_controllers()
        if role is not None:
            self.dress(role)
            self.other_side = SimulatedUser(self)

    def dress(self, role):
        self.control("Tune", "su", "retry-after", 3000)
        self.control("PutInRange", "ossua{sv}", HCI0, SECOND, {KEYBOARD: "keyboard", HEADSET: "headset"}[role], 100, {})

    def clear(self):
        self.other_side = None
        self.stop_bluez(signal.SIGKILL)

    def close(self):
        super().close()
        self._own_bus.stop()
        self._folder.cleanup()
