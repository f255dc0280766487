"""Waiting for conditions, never for time to pass."""

import os
import threading
import time

# Sanitizers and valgrind make the service slower: they set a factor that stretches every limit.
SLOWNESS = float(os.environ.get("BTN_SLOWNESS", "1"))

# How long a test waits for what is to come at once.
LIMIT = 5.0


class TimedOut(AssertionError):
    """What a test waited for did not come."""


def stretched(seconds):
    """A limit in seconds, as long as the build under test needs it."""
    return seconds * SLOWNESS


def wait_until(condition, what, limit=LIMIT, pause=0.005):
    """Polls until condition() is true and gives its value; for what offers no event to wait on."""
    deadline = time.monotonic() + stretched(limit)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimedOut(f"expected within {stretched(limit):g} s: {what}")
        time.sleep(pause)


class Record:
    """A list that one thread fills and others wait on: calls, log lines, messages."""

    def __init__(self):
        self._items = []
        self._changed = threading.Condition()
        self._closed = False

    def add(self, item):
        with self._changed:
            self._items.append(item)
            self._changed.notify_all()

    def close(self):
        """Nothing will be added any more: who waits need not go on."""
        with self._changed:
            self._closed = True
            self._changed.notify_all()

    def __len__(self):
        with self._changed:
            return len(self._items)

    def all(self, start=0):
        with self._changed:
            return list(self._items[start:])

    def wait(self, matches, what, count=1, start=0, limit=LIMIT):
        """The count-th item from index start on that matches; fails with what when it does not come."""
        deadline = time.monotonic() + stretched(limit)
        with self._changed:
            while True:
                found = [item for item in self._items[start:] if matches(item)]
                if len(found) >= count:
                    return found[count - 1]
                left = deadline - time.monotonic()
                if left <= 0 or self._closed:
                    reason = "nothing more can come" if self._closed else f"not within {stretched(limit):g} s"
                    times = "" if count == 1 else f" ({count} times, seen {len(found)})"
                    raise TimedOut(f"expected {what}{times}: {reason}")
                self._changed.wait(left)
