"""A programmable BlueZ: publishes the objects it is given and answers each method as the test says.

Unless told otherwise it behaves as bluetoothd does with one exception: Pair is held until the test answers the call.
"""

import collections
import threading

from .dbus import BusConnection, signal
from .waiting import LIMIT, Record

ADAPTER = "org.bluez.Adapter1"
DEVICE = "org.bluez.Device1"
MANAGER = "org.bluez.AgentManager1"
AGENT = "org.bluez.Agent1"
OBJECTS = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
AGENT_PATH = "/com/kelvo/bluetooth/service"


class Reply:
    """Answers with a return of this signature and these values."""

    def __init__(self, signature="", *body):
        self._signature, self._body = signature, body

    def __call__(self, call):
        call.reply(self._signature, *self._body)


class Error:
    """Answers with an error of this name."""

    def __init__(self, name, text="as the test said"):
        self._name, self._text = name, text

    def __call__(self, call):
        call.error(self._name, self._text)


class Later:
    """Answers with another answer after some seconds."""

    def __init__(self, seconds, answer):
        self._seconds, self._answer = seconds, answer

    def __call__(self, call):
        timer = threading.Timer(self._seconds, self._answer, [call])
        timer.daemon = True
        timer.start()


def hold(_call):
    """Leaves the call unanswered: for ever, or until the test answers it."""


NOT_READY = Error("org.bluez.Error.NotReady", "Resource Not Ready")
FAILED = Error("org.bluez.Error.Failed", "it failed")


def device_path(address, adapter="hci0"):
    return f"/org/bluez/{adapter}/dev_{address.replace(':', '_')}"


class FakeBluez:
    def __init__(self, bus, take_name=True):
        self.calls = Record()
        self.other = Record()
        self.objects = {}
        self.agent = None
        self._answers = {}
        self._lock = threading.Lock()
        self._connection = BusConnection(bus, on_call=self._take, on_other=self.other.add)
        if take_name:
            self.take_name()

    def take_name(self):
        result = self._connection.call_bus("RequestName", "su", ("org.bluez", 4)).args[0]
        assert result == 1, f"org.bluez is somebody else's on this bus (RequestName gave {result})"

    def drop_name(self):
        self._connection.call_bus("ReleaseName", "s", ("org.bluez",))

    def close(self):
        self._connection.close()

    # What it publishes

    def set_adapter(self, name="hci0", address="00:1A:7D:DA:71:13", announce=False, **properties):
        """Adds or replaces an adapter; properties are (signature, value), None leaves one out. Gives its path."""
        values = {"Address": ("s", address), "Name": ("s", f"controller {name}"), "Discovering": ("b", False)}
        return self._publish(f"/org/bluez/{name}", ADAPTER, values, properties, announce)

    def set_device(self, address="00:11:22:33:44:55", adapter="hci0", announce=False, path=None, **properties):
        """Adds or replaces a device; properties are (signature, value), None leaves one out. Gives its path."""
        values = {"Address": ("s", address), "Alias": ("s", f"device {address[-2:]}"), "Paired": ("b", False),
                  "Class": ("u", 0x240404), "UUIDs": ("as", []), "Adapter": ("o", f"/org/bluez/{adapter}")}
        return self._publish(path or device_path(address, adapter), DEVICE, values, properties, announce)

    def set_property(self, path, interface, name, signature, value):
        """Changes a property without telling anybody."""
        with self._lock:
            self.objects[path][interface][name] = (signature, value)

    def announce(self, path):
        with self._lock:
            interfaces = {name: dict(values) for name, values in self.objects[path].items()}
        self.interfaces_added(path, interfaces)

    def remove(self, path, interfaces=None):
        """Takes an object away and tells."""
        with self._lock:
            gone = list(self.objects.pop(path, {})) if interfaces is None else interfaces
        self.interfaces_removed(path, gone)

    def _publish(self, path, interface, values, properties, announce):
        for name, value in properties.items():
            if value is None:
                del values[name]
            else:
                values[name] = value
        with self._lock:
            self.objects.setdefault(path, {})[interface] = values
        if announce:
            self.announce(path)
        return path

    # What it signals

    def interfaces_added(self, path, interfaces):
        self.signal("/", OBJECTS, "InterfacesAdded", "oa{sa{sv}}", path, interfaces)

    def interfaces_removed(self, path, interfaces):
        self.signal("/", OBJECTS, "InterfacesRemoved", "oas", path, interfaces)

    def properties_changed(self, path, changed, interface=DEVICE, invalidated=()):
        self.signal(path, PROPERTIES, "PropertiesChanged", "sa{sv}as", interface, changed, list(invalidated))

    def signal(self, path, interface, member, signature="", *body):
        self._connection.send(signal(path, interface, member, signature, body))

    def settle(self, limit=LIMIT):
        """Returns when the service has handled every signal sent so far: it answers Introspect behind them."""
        self.call_agent("Introspect", interface=INTROSPECTABLE, limit=limit)

    # How it answers

    def answer(self, member, *answers, path=None):
        """The answers to the next calls of a method, the last of them for all that follow.

        Get is programmed as "Get:Property". With path only for that object.
        """
        with self._lock:
            self._answers[(member, path)] = collections.deque(answers)

    def _programmed(self, call):
        names = [call.member]
        if call.interface == PROPERTIES and call.member == "Get" and call.signature == "ss":
            names.insert(0, f"Get:{call.args[1]}")
        with self._lock:
            for name in names:
                for path in (call.path, None):
                    queue = self._answers.get((name, path))
                    if queue:
                        return queue.popleft() if len(queue) > 1 else queue[0]
        return None

    def _take(self, call):
        self.calls.add(call)
        if call.interface == MANAGER and call.member == "RegisterAgent" and call.signature == "os":
            self.agent = (call.sender, call.args[0])
        answer = self._programmed(call) or getattr(self, f"_default_{call.member}", None)
        if answer is None:
            call.error("org.freedesktop.DBus.Error.UnknownMethod", f'Method "{call.member}" does not exist')
        else:
            answer(call)

    def _default_GetManagedObjects(self, call):
        with self._lock:
            objects = {path: {name: dict(values) for name, values in interfaces.items()}
                       for path, interfaces in self.objects.items()}
        call.reply("a{oa{sa{sv}}}", objects)

    def _default_Get(self, call):
        interface, name = call.args
        with self._lock:
            value = self.objects.get(call.path, {}).get(interface, {}).get(name)
        if value is None:
            call.error("org.freedesktop.DBus.Error.InvalidArgs", f"No such property '{name}'")
        else:
            call.reply("v", value)

    def _default_RegisterAgent(self, call):
        call.reply()

    def _default_UnregisterAgent(self, call):
        if call.signature == "o":
            call.reply()
        else:
            call.error("org.freedesktop.DBus.Error.UnknownMethod",
                       f'Method "UnregisterAgent" with signature "{call.signature}" on interface "{MANAGER}" '
                       "doesn't exist\n")

    def _default_Pair(self, call):
        hold(call)

    def _default_StartDiscovery(self, call):
        call.reply()

    _default_StopDiscovery = _default_StartDiscovery
    _default_ConnectProfile = _default_StartDiscovery
    _default_CancelPairing = _default_StartDiscovery
    _default_RemoveDevice = _default_StartDiscovery

    # What it saw

    def wait_call(self, member, path=None, count=1, start=0, limit=LIMIT):
        """The count-th call of the method (of that object) since the start-th call at all."""
        return self.calls.wait(lambda call: call.member == member and path in (None, call.path),
                               f"a bus call {member} at {path or 'any path'}", count=count, start=start, limit=limit)

    def calls_of(self, *members, path=None):
        return [call for call in self.calls.all() if call.member in members and path in (None, call.path)]

    # What it asks the agent

    def begin_agent_call(self, member, signature="", *body, interface=AGENT, path=None):
        """Calls the registered agent; gives a function that waits for the reply."""
        name, agent_path = self.agent
        return self._connection.begin(name, path or agent_path, interface, member, signature, body)

    def call_agent(self, member, signature="", *body, interface=AGENT, path=None, limit=LIMIT):
        return self.begin_agent_call(member, signature, *body, interface=interface, path=path)(limit)

    def display_pincode(self, path, pincode):
        """Shows a pincode for a device and waits until the agent has taken it."""
        return self.call_agent("DisplayPinCode", "os", path, pincode)
