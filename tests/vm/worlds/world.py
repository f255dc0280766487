"""What both worlds share: what a scenario asks of BlueZ beside the service, and what the service asked."""

from worlds.facts import ADAPTER, AGENT_PATH, DEVICE, FIRST_PATH, PROPERTIES, SECOND_PATH
from worlds.record import calls_between

from harness.dbus import BusConnection, BusError, Monitor
from harness.waiting import wait_until
from jeepney.low_level import MessageType


class World:
    """A bus with BlueZ on it, which is made anew for each scenario."""

    name = None

    def __init__(self, bus, out):
        self.bus = bus
        self.out = out
        self.user = BusConnection(bus)
        self.monitor = Monitor(bus)
        # Who uses the remote device.
        self.other_side = None
        self._began = 0

    def call(self, path, interface, member, signature="", *body, limit=20):
        return self.user.call("org.bluez", path, interface, member, signature, body, limit=limit)

    def property(self, path, interface, name):
        """The value, or None where there is no such object or property now."""
        try:
            return self.call(path, PROPERTIES, "Get", "ss", interface, name).args[0][1]
        except BusError:
            return None

    def wait(self, condition, what, limit=20):
        """Asks less often than the tests of the service alone do: in the virtual machine each look costs."""
        return wait_until(condition, what, limit, pause=0.05)

    def wait_apart(self):
        """Returns when nothing is left of a pairing that failed: neither controller knows the other."""
        for path in (FIRST_PATH, SECOND_PATH):
            self.wait(lambda device=path: self.property(device, DEVICE, "Address") is None, f"no device {path}")

    def set_powered(self, adapter, on):
        self.call(f"/org/bluez/{adapter}", PROPERTIES, "Set", "ssv", ADAPTER, "Powered", ("b", on))
        self.wait(lambda: self.property(f"/org/bluez/{adapter}", ADAPTER, "Powered") is on, f"{adapter} powered: {on}")

    def remove_device(self):
        """Forgets the second controller on the first, and the first on the second."""
        for adapter, device in (("hci0", SECOND_PATH), ("hci1", FIRST_PATH)):
            try:
                self.call(f"/org/bluez/{adapter}", ADAPTER, "RemoveDevice", "o", device)
            except BusError as error:
                if not error.name.endswith(("DoesNotExist", "UnknownObject", "UnknownMethod")):
                    raise

    def wait_bluez(self, there=True):
        self.wait(lambda: bool(self.user.call_bus("NameHasOwner", "s", ("org.bluez",)).args[0]) is there,
                  f"org.bluez on the bus: {there}")

    def wait_controllers(self):
        for name in ("hci0", "hci1"):
            self.wait(lambda path=f"/org/bluez/{name}": self.property(path, ADAPTER, "Powered") is True,
                      f"controller {name} powered")

    # What the service asked

    def begin(self):
        """The next scenario begins, with nothing of the last one; what was on the bus before does not count."""
        self.clear()
        self.monitor.settle()
        self._began = len(self.monitor.messages)

    def messages(self):
        """Everything on the bus since the scenario began."""
        self.monitor.settle()
        return self.monitor.messages.all(self._began)

    def services(self):
        """The bus names of the services of this scenario, in order. A service is who registers its agent."""
        return list(dict.fromkeys(
            message.sender for message in self.messages()
            if message.kind is MessageType.method_call and message.member == "RegisterAgent"
            and AGENT_PATH in message.args))

    def calls(self):
        """What the services of this scenario and BlueZ asked of each other, as worlds/record.py writes it."""
        return calls_between(self.messages(), self.services())

    def calls_of_service(self, member):
        services = self.services()
        return sum(message.kind is MessageType.method_call and message.member == member and message.sender in services
                   for message in self.messages())

    def answers(self, member):
        """How the calls of the service were answered, of those that were: "ok" or the name of the error."""
        return [call[-1] for call in self.calls() if call[0] != "bluez" and call[2] == member and call[-1]]

    def wait_answered(self):
        """Returns when the service waits for no answer any more, but that of a pairing that may go on."""
        self.wait(lambda: all(call[-1] for call in self.calls() if call[0] != "bluez" and call[2] != "Pair"),
                  "answers to the calls of the service")

    def wait_calls_of_service(self, member, count, limit=20):
        self.wait(lambda: self.calls_of_service(member) >= count, f"{count} calls {member}", limit)

    def broken(self):
        """What of the world itself, beside BlueZ, has broken down in this scenario; empty when nothing has."""
        return ""

    def clear(self):
        """Ends BlueZ and all it knows."""
        raise NotImplementedError

    def close(self):
        self.clear()
        for connection in (self.user, self.monitor):
            connection.close()
