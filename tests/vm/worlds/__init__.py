"""The BlueZ under the service: the real bluetoothd in the virtual machine, or the simulator. Scenarios see no difference.

Every world has two controllers that find each other. The second one plays the remote device.
"""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scenario"))


def make(name, out):
    """The world of this name, with its logs in a folder."""
    if name == "bluetoothd":
        from worlds.bluetoothd import Bluetoothd as World  # pylint: disable=import-outside-toplevel
    elif name == "simulator":
        from worlds.simulator import Simulator as World  # pylint: disable=import-outside-toplevel
    else:
        sys.exit(f"there is no world {name}, only bluetoothd and simulator")
    return World(pathlib.Path(out))
