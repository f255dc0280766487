"""Whether the service and BlueZ asked the same of each other in two worlds, and were answered alike.

Calls are compared object by object, in order. Between objects there is no order to compare: the service's main thread
and the threads of its requests ask independently of each other. What else may differ is listed here, each with its reason.
"""

import difflib
import re

# Both controllers are in one machine, so bluetoothd shows the remote device's view of the first controller as well. The
# simulator's remote device is no BlueZ.
OTHER_VIEW = "/org/bluez/hci1/dev_"
# Made up anew for each pairing.
PINCODE = re.compile(r"^\d{6}$")


def matters(call):
    _, path, _, *rest = call
    return not path.startswith(OTHER_VIEW) and not any(OTHER_VIEW in argument for argument in rest)


def plain(call):
    """As text, without what is different each time."""
    return " ".join("PINCODE" if PINCODE.match(word) else word for word in call if word)


def by_object(calls):
    objects = {}
    for call in filter(matters, calls):
        objects.setdefault(call[1], []).append(plain(call))
    return objects


def differences(real, simulated):
    """Lines that tell how they differ, none when they are alike: - bluetoothd, + simulator."""
    real, simulated = by_object(real), by_object(simulated)
    lines = []
    for path in sorted({*real, *simulated}):
        here = list(difflib.unified_diff(real.get(path, []), simulated.get(path, []), "bluetoothd", "simulator",
                                         lineterm="", n=1))
        lines += [f"  {line}" for line in here if not line.startswith(("---", "+++"))]
    return lines
