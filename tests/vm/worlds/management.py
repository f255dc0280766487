"""The kernel's Bluetooth management interface: how the emulated controllers are made to be what a scenario needs."""

import ctypes
import os
import socket
import struct

CONTROL_CHANNEL = 3
NO_CONTROLLER = 0xFFFF

SET_CONNECTABLE = 0x0007
SET_BONDABLE = 0x0009
SET_LINK_SECURITY = 0x000A
SET_SSP = 0x000B
SET_LE = 0x000D
SET_CLASS = 0x000E
SET_SECURE_CONNECTIONS = 0x002D
SET_DISCOVERABLE = 0x0006

COMMAND_COMPLETE = 1
COMMAND_STATUS = 2
CONNECT_FAILED = 0x000D
AUTHENTICATION_FAILED = 0x0011


class ManagementError(Exception):
    """The kernel refused a command."""


class Management:
    """A connection to the kernel; each command returns when it is carried out."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_BLUETOOTH, socket.SOCK_RAW, socket.BTPROTO_HCI)
        # socket.bind() knows the number of a controller but not the channel.
        address = struct.pack("HHH", socket.AF_BLUETOOTH, NO_CONTROLLER, CONTROL_CHANNEL)
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.bind(self._socket.fileno(), address, len(address)) != 0:
            raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
        self._socket.settimeout(20)

    def command(self, controller, code, *values, form="B"):
        self._socket.send(struct.pack("<HHH" + form, code, controller, struct.calcsize("<" + form), *values))
        while True:
            event, index, _, *_ = struct.unpack_from("<HHH", packet := self._socket.recv(4096))
            if index != controller or event not in (COMMAND_COMPLETE, COMMAND_STATUS):
                continue
            answered, status = struct.unpack_from("<HB", packet, 6)
            if answered == code:
                if status != 0:
                    raise ManagementError(f"command {code:#06x} on hci{controller}: status {status:#04x}")
                return

    def switch(self, controller, code, on):
        """Sets it also where the kernel believes that it is so: after a power cycle the controller may not agree."""
        self.command(controller, code, not on)
        self.command(controller, code, on)

    def wait_event(self, controller, *codes):
        """Returns when one of these events of a controller has come since the last command, or since the last wait."""
        while True:
            event, index, _ = struct.unpack_from("<HHH", self._socket.recv(4096))
            if index == controller and event in codes:
                return

    def close(self):
        self._socket.close()
