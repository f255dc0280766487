"""A Varlink client over a Unix socket, strict about what it is sent."""

import fcntl
import json
import os
import socket
import struct
import termios
import time

from .waiting import LIMIT, TimedOut, stretched

NODE = "com.kelvo.node"
SERVICE = "org.varlink.service"

SUCCESS = 0
FAILURE = 33859
UNKNOWN_ACTION = 33862
NOTHING_TO_WAIT_FOR = 33923
REFUSED = 4294967295


class Closed(Exception):
    """The service closed the connection."""


class VarlinkError(Exception):
    def __init__(self, name, parameters):
        super().__init__(f"{name} {parameters}")
        self.name = name
        self.parameters = parameters


def connect(path):
    """A connected socket; a path may be longer than a socket address."""
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    folder = os.open(os.path.dirname(path), os.O_PATH | os.O_DIRECTORY)
    try:
        client.connect(f"/proc/self/fd/{folder}/{os.path.basename(path)}")
    except BaseException:
        client.close()
        raise
    finally:
        os.close(folder)
    return client


def integer(name, value):
    return {"name": name, "kind": "integer", "integer": value}


def string(name, text):
    return {"name": name, "kind": "string", "text": text}


def nothing(name):
    return {"name": name, "kind": "none"}


def listing(name, *children):
    return {"name": name, "kind": "list", "children": list(children)}


def action(name, *options):
    """An action as a client sends it: a list of options, or just the name."""
    return listing(name, *options) if options else nothing(name)


def _unique(pairs):
    keys = [key for key, _ in pairs]
    assert len(keys) == len(set(keys)), f"a reply holds a key twice: {keys}"
    return dict(pairs)


def without_nulls(value):
    """Null and absent are the same; so are a list value without children and one with an empty list."""
    if isinstance(value, list):
        return [without_nulls(item) for item in value]
    if isinstance(value, dict):
        plain = {key: without_nulls(item) for key, item in value.items() if item is not None}
        if plain.get("kind") == "list":
            plain.setdefault("children", [])
        return plain
    return value


class Client:
    """One connection to one node."""

    def __init__(self, path):
        self.path = path
        self.socket = connect(path)
        self._buffer = b""
        self._sent = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def half_close(self):
        self.socket.shutdown(socket.SHUT_WR)

    def unread(self):
        """How much of what was sent the service has not taken yet, as the kernel accounts it; 0 for nothing."""
        return struct.unpack("i", fcntl.ioctl(self.socket, termios.TIOCOUTQ, b"\0" * 4))[0]

    # Messages

    def send_raw(self, data):
        self._sent = data
        self.socket.sendall(data)

    def send(self, method, parameters=None, **flags):
        message = {"method": method}
        if parameters is not None:
            message["parameters"] = parameters
        message.update(flags)
        self.send_raw(json.dumps(message, ensure_ascii=False).encode() + b"\0")

    def receive_raw(self, limit=LIMIT):
        """The bytes of one message without its NUL; Closed at the end of the stream."""
        deadline = time.monotonic() + stretched(limit)
        while b"\0" not in self._buffer:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimedOut(f"expected a reply from {self.path} within {stretched(limit):g} s; "
                               f"sent last {self._sent[:200]!r}, so far came {self._buffer[:200]!r}")
            self.socket.settimeout(left)
            try:
                data = self.socket.recv(65536)
            except TimeoutError:
                continue
            except ConnectionResetError:
                data = b""
            finally:
                self.socket.settimeout(None)
            if not data:
                assert not self._buffer, f"the connection ended within a message: {self._buffer[:200]!r}"
                raise Closed(self.path)
            self._buffer += data
        message, self._buffer = self._buffer.split(b"\0", 1)
        return message

    def receive(self, limit=LIMIT):
        """One reply as it stands, checked against what a reply may look like."""
        message = self.receive_raw(limit)
        reply = json.loads(message.decode("utf-8", "strict"), object_pairs_hook=_unique)
        assert isinstance(reply, dict), f"a reply is no object: {reply!r}"
        assert set(reply) <= {"parameters", "error", "continues"}, f"unknown keys in a reply: {reply!r}"
        assert isinstance(reply.get("parameters") or {}, dict), f"parameters of a reply are no object: {reply!r}"
        if reply.get("error") is not None:
            assert isinstance(reply["error"], str) and not reply.get("continues"), f"not an error reply: {reply!r}"
        return reply

    def expect_closed(self, limit=LIMIT):
        """Nothing comes any more but the end."""
        try:
            message = self.receive_raw(limit)
        except Closed:
            return
        raise AssertionError(f"expected the connection to be closed without a reply, got {message!r}")

    def expect_silence(self, limit):
        """Nothing comes within the limit and the connection stays: only where nothing else can be waited for."""
        self.socket.settimeout(limit)
        try:
            data = self.socket.recv(65536)
        except TimeoutError:
            return
        finally:
            self.socket.settimeout(None)
        raise AssertionError(f"expected nothing, got {data!r}")

    # Calls

    def result(self, limit=LIMIT):
        """The parameters of the next reply; an error is raised as VarlinkError."""
        reply = self.receive(limit)
        if reply.get("error") is not None:
            raise VarlinkError(reply["error"], reply.get("parameters") or {})
        return without_nulls(reply.get("parameters") or {})

    def call(self, method, parameters=None, limit=LIMIT, **flags):
        self.send(method, parameters, **flags)
        return self.result(limit)

    def describe(self):
        return self.call(f"{NODE}.Describe")

    def get(self, attribute, limit=LIMIT):
        """The list of values of an attribute."""
        return self.call(f"{NODE}.Get", {"attribute": attribute}, limit=limit)["values"]

    def value(self, attribute, limit=LIMIT):
        """The payload of an attribute's one value, which has its name."""
        values = self.get(attribute, limit)
        assert len(values) == 1 and values[0]["name"] == attribute, f"not one value named {attribute}: {values}"
        return payload(values[0])

    def send_execute(self, *values, **flags):
        self.send(f"{NODE}.Execute", {"values": list(values)}, **flags)

    def execute(self, *values, limit=LIMIT):
        """Executes and gives the list of values."""
        self.send_execute(*values)
        return self.result(limit)["values"]

    def do(self, name, *options, limit=LIMIT):
        """Executes one action; the payload of its one reply value, which has its name."""
        self.send_execute(action(name, *options))
        return self.done(name, limit)

    def done(self, name, limit=LIMIT):
        """The payload of the reply to one action that was sent before."""
        values = self.result(limit)["values"]
        assert len(values) == 1 and values[0].get("name") == name, f"not one value named {name}: {values}"
        return payload(values[0])

    def watch(self):
        """Begins a watch and takes its first reply, which comes at once and without change."""
        self.send(f"{NODE}.Watch", more=True)
        reply = self.receive()
        assert reply.get("continues") is True and "error" not in reply, f"not the first reply of a watch: {reply}"
        assert without_nulls(reply.get("parameters") or {}) == {}, f"the first reply holds a change: {reply}"

    def change(self, limit=LIMIT):
        """The argument of the next change of the watch."""
        reply = self.receive(limit)
        assert reply.get("continues") is True, f"not a change: {reply}"
        return reply["parameters"]["change"]


def payload(value):
    """What a value carries: an integer, a text, None, or a list of (name, payload)."""
    kind = value["kind"]
    keys = {"integer": "integer", "string": "text", "list": "children"}
    stray = set(value) - {"name", "kind", keys.get(kind)}
    assert not stray, f"a value of kind {kind} has {stray} too: {value}"
    if kind == "none":
        return None
    if kind == "list":
        return [(child.get("name"), payload(child)) for child in value["children"]]
    return value[keys[kind]]
