"""A D-Bus connection for tests: sends what it is told, also what no library would, and records what comes."""

import dataclasses
import itertools
import os
import signal as signals
import socket
import subprocess
import threading
import time

from jeepney.auth import BEGIN, Authenticator
from jeepney.fds import FileDescriptor, fds_buf_size
from jeepney.low_level import Endianness, Header, HeaderFields, Message, MessageFlag, MessageType, Parser

from .waiting import LIMIT, Record, TimedOut, stretched

CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  {limits}
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
"""


class PrivateBus:
    """A dbus-daemon of its own, with the limits of the system bus."""

    def __init__(self, folder, name="bus", limits=()):
        self.path = str(folder / name)
        self.address = f"unix:path={self.path}"
        config = folder / f"{name}.conf"
        limit_lines = "".join(f'<limit name="{key}">{value}</limit>' for key, value in dict(limits).items())
        config.write_text(CONFIG.format(socket=self.path, limits=limit_lines))
        ready, child = os.pipe()
        with open(folder / f"{name}.log", "wb") as log:
            self._process = subprocess.Popen(
                ["dbus-daemon", f"--config-file={config}", "--nofork", "--nopidfile", f"--print-address={child}"],
                pass_fds=[child], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        os.close(child)
        with open(ready, encoding="ascii") as address:
            if not address.readline():
                raise RuntimeError("the private dbus-daemon did not start")

    def pause(self):
        """Stops the daemon without ending it: everything on the bus hangs."""
        self._process.send_signal(signals.SIGSTOP)

    def resume(self):
        self._process.send_signal(signals.SIGCONT)

    def stop(self):
        if self._process.poll() is None:
            self.resume()
            self._process.terminate()
            self._process.wait(10)

    def kill(self):
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait(10)


@dataclasses.dataclass
class Call:
    """A method call (or a monitored message) as it came in."""

    time: float
    message: Message
    connection: "BusConnection"
    answered: bool = False

    @property
    def fields(self):
        return self.message.header.fields

    @property
    def kind(self):
        return self.message.header.message_type

    @property
    def serial(self):
        return self.message.header.serial

    @property
    def sender(self):
        return self.fields.get(HeaderFields.sender)

    @property
    def destination(self):
        return self.fields.get(HeaderFields.destination)

    @property
    def path(self):
        return self.fields.get(HeaderFields.path)

    @property
    def interface(self):
        return self.fields.get(HeaderFields.interface)

    @property
    def member(self):
        return self.fields.get(HeaderFields.member)

    @property
    def error_name(self):
        return self.fields.get(HeaderFields.error_name)

    @property
    def signature(self):
        return self.fields.get(HeaderFields.signature, "")

    @property
    def reply_serial(self):
        return self.fields.get(HeaderFields.reply_serial)

    @property
    def args(self):
        return self.message.body

    @property
    def wants_reply(self):
        return not self.message.header.flags & MessageFlag.no_reply_expected

    def reply(self, signature="", *body):
        self._answer(method_return(self.message, signature, body))

    def error(self, name, text=None):
        self._answer(error_reply(self.message, name, text))

    def _answer(self, message):
        self.answered = True
        if self.wants_reply:
            self.connection.send(message)

    def __str__(self):
        what = f"{self.kind.name} {self.path or ''} {self.interface or ''}.{self.member or self.error_name or ''}"
        return f"{self.time:.3f} {self.sender} -> {self.destination} {what}{self.args!r}"


def _message(kind, fields, signature, body, flags=0):
    header = Header(Endianness.little, kind, flags, 1, -1, -1, {k: v for k, v in fields.items() if v is not None})
    if signature:
        header.fields[HeaderFields.signature] = signature
    return Message(header, tuple(body))


def method_call(destination, path, interface, member, signature="", body=(), flags=0):
    fields = {HeaderFields.destination: destination, HeaderFields.path: path, HeaderFields.interface: interface,
              HeaderFields.member: member}
    return _message(MessageType.method_call, fields, signature, body, flags)


def signal(path, interface, member, signature="", body=(), destination=None):
    fields = {HeaderFields.path: path, HeaderFields.interface: interface, HeaderFields.member: member,
              HeaderFields.destination: destination}
    return _message(MessageType.signal, fields, signature, body)


def method_return(call, signature="", body=()):
    fields = {HeaderFields.reply_serial: call.header.serial,
              HeaderFields.destination: call.header.fields.get(HeaderFields.sender)}
    return _message(MessageType.method_return, fields, signature, body)


def error_reply(call, name, text=None):
    fields = {HeaderFields.reply_serial: call.header.serial, HeaderFields.error_name: name,
              HeaderFields.destination: call.header.fields.get(HeaderFields.sender)}
    return _message(MessageType.error, fields, "" if text is None else "s", () if text is None else (text,))


class BusError(Exception):
    def __init__(self, name, args):
        super().__init__(f"{name}: {args}")
        self.name = name


class BusConnection:
    """One connection to the bus with a reading thread; on_call is run on it for each method call that comes.

    With unix_fds calls may carry file descriptors; the bus keeps those from any other connection.
    """

    def __init__(self, bus, on_call=None, on_other=None, monitor=False, unix_fds=False):
        self._on_call = on_call
        self._on_other = on_other
        self._serials = itertools.count(1)
        self.sent = 0  # serial of the last message sent
        self._sending = threading.Lock()
        self._replies = Record()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.connect(bus.path)
        authenticator = Authenticator(enable_fds=unix_fds)
        for line in authenticator:
            self._socket.sendall(line)
            authenticator.feed(self._socket.recv(1024))
        self._socket.sendall(BEGIN)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()
        self.name = self.call_bus("Hello").args[0]
        if monitor:
            self.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
                      "BecomeMonitor", "asu", ([], 0))

    def send(self, message):
        """Sends and gives the serial."""
        with self._sending:
            serial = self.sent = next(self._serials)
            try:
                self._socket.sendall(message.serialise(serial))
            except OSError:
                pass  # The bus is gone: what is read tells.
            return serial

    def begin(self, *args, **kwargs):
        """Sends a call and gives a function that waits for its reply."""
        serial = self.send(method_call(*args, **kwargs))

        def reply(limit=LIMIT):
            return self._replies.wait(lambda call: call.reply_serial == serial, f"a reply to {args}", limit=limit)

        return reply

    def call(self, *args, limit=LIMIT, **kwargs):
        """Calls and waits; an error reply is raised as BusError."""
        answer = self.begin(*args, **kwargs)(limit)
        if answer.kind is MessageType.error:
            raise BusError(answer.error_name, answer.args)
        return answer

    def call_bus(self, member, signature="", body=()):
        return self.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member, signature,
                         body)

    def round_trip(self):
        """After it the bus has taken everything that was sent here before."""
        self.call_bus("GetId")

    def close(self):
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._thread.join(stretched(5))
        self._socket.close()
        if self._thread.is_alive():
            raise TimedOut("the reading thread of a bus connection did not end")

    def _read(self):
        parser = Parser()
        while True:
            try:
                data, ancillary, *_ = self._socket.recvmsg(65536, fds_buf_size())
            except OSError:
                data = b""
            if not data:
                self._replies.close()
                return
            parser.add_data(data, FileDescriptor.from_ancdata(ancillary))
            while (message := parser.get_next_message()) is not None:
                call = Call(time.monotonic(), message, self)
                if call.kind is MessageType.method_call and self._on_call is not None:
                    self._on_call(call)
                elif call.kind in (MessageType.method_return, MessageType.error) and call.destination in (
                        None, getattr(self, "name", call.destination)):
                    self._replies.add(call)
                elif self._on_other is not None:
                    self._on_other(call)


class Monitor:
    """Records everything on the bus, as dbus-monitor sees it."""

    def __init__(self, bus):
        self.messages = Record()
        self._connection = BusConnection(bus, on_call=self.messages.add, on_other=self.messages.add, monitor=True)
        # Asks the bus things that can be told apart, to know how far the monitor is.
        self._marker = BusConnection(bus)

    def settle(self):
        """Returns when everything has been recorded that the bus took before."""
        self._marker.round_trip()
        last = self._marker.sent
        self.messages.wait(lambda call: call.sender == self._marker.name and call.serial == last, "the monitor's mark")

    def wait(self, matches, what, **kwargs):
        return self.messages.wait(matches, what, **kwargs)

    def calls(self, sender=None):
        """Method calls in order; with sender those of one connection."""
        self.settle()
        return [call for call in self.messages.all()
                if call.kind is MessageType.method_call and sender in (None, call.sender)]

    def close(self):
        self._marker.close()
        self._connection.close()
