"""bluez-simulator on a private bus."""

import pathlib
import signal
import subprocess
import tempfile

from worlds.facts import DEVICE_ID, FIRST, HEADSET, KEYBOARD, REMOTE_CONTROL, SECOND, SECOND_PATH, SERIAL_PORT
from worlds.world import World

from harness.dbus import PrivateBus
from harness.process import BIN

HCI0 = "/org/bluez/hci0"


class SimulatedUser:
    """The user of the remote device, who types at the simulator's keyboard."""

    def __init__(self, world):
        self._world = world

    def offer_serial_port(self):
        """It is among the services that the device was given."""

    def let_in(self, willing):
        """Nobody asks the simulated user, so bluetoothd's answer is given in its place."""
        if not willing:
            self._world.control("AnswerError", "ssuss", SECOND_PATH, "ConnectProfile", 1, "org.bluez.Error.Failed",
                                "br-connection-refused")

    def fail_with(self, pincode):
        self.type(pincode)

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
        model = {KEYBOARD: "keyboard", HEADSET: "headset"}[role]
        services = {"UUIDs": ("as", [SERIAL_PORT, REMOTE_CONTROL, DEVICE_ID])} if role == HEADSET else {}
        self.control("PutInRange", "ossua{sv}", HCI0, SECOND, model, 100, services)

    def clear(self):
        self.other_side = None
        self.stop_bluez(signal.SIGKILL)

    def close(self):
        super().close()
        self._own_bus.stop()
        self._folder.cleanup()
