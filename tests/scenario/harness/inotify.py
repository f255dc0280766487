"""What a program that watches the tree is told."""

import ctypes
import os
import select
import struct

from .waiting import LIMIT, TimedOut, stretched

MOVED_TO = 0x80
CREATE = 0x100
DELETE = 0x200
IS_DIR = 0x40000000

_LIBC = ctypes.CDLL(None, use_errno=True)
_HEADER = struct.Struct("iIII")


class Watch:
    """Tells what comes into a folder and what goes from it."""

    def __init__(self, folder):
        self._events = []
        self._descriptor = _LIBC.inotify_init1(os.O_CLOEXEC)
        mask = MOVED_TO | CREATE | DELETE
        if self._descriptor < 0 or _LIBC.inotify_add_watch(self._descriptor, os.fsencode(folder), mask) < 0:
            raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), folder)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._descriptor)

    def next(self, limit=LIMIT):
        """The next event: its mask and the name it is about."""
        if not self._events:
            if not select.select([self._descriptor], [], [], stretched(limit))[0]:
                raise TimedOut("expected an inotify event")
            data = os.read(self._descriptor, 65536)
            while data:
                _, mask, _, length = _HEADER.unpack_from(data)
                name = data[_HEADER.size:_HEADER.size + length].rstrip(b"\0").decode()
                self._events.append((mask, name))
                data = data[_HEADER.size + length:]
        return self._events.pop(0)
