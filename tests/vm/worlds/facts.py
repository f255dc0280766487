"""Names and numbers that scenarios and worlds share."""

ADAPTER = "org.bluez.Adapter1"
DEVICE = "org.bluez.Device1"
AGENT = "org.bluez.Agent1"
AGENT_MANAGER = "org.bluez.AgentManager1"
PROFILE = "org.bluez.Profile1"
PROFILE_MANAGER = "org.bluez.ProfileManager1"
PROPERTIES = "org.freedesktop.DBus.Properties"

# Where the service's own agent is.
AGENT_PATH = "/com/kelvo/bluetooth/service"

# What the emulator's two controllers are called, and what each is to the other.
FIRST = "00:AA:01:00:00:00"
SECOND = "00:AA:01:01:00:01"
SECOND_PATH = "/org/bluez/hci0/dev_" + SECOND.replace(":", "_")
FIRST_PATH = "/org/bluez/hci1/dev_" + FIRST.replace(":", "_")

# What the second controller can be.
KEYBOARD = "keyboard"  # wants a pincode typed
HEADSET = "headset"  # pairs without one

# Serial Port, which a program on the other side offers; bluetoothd has nothing of its own for it.
SERIAL_PORT = "00001101-0000-1000-8000-00805f9b34fb"
# The controller of remote control, which bluetoothd itself offers and connects.
REMOTE_CONTROL = "0000110e-0000-1000-8000-00805f9b34fb"
# The device's identification, which is listed but nothing that can be connected.
DEVICE_ID = "00001200-0000-1000-8000-00805f9b34fb"
# Advanced remote control, which nobody lists.
NOT_LISTED = "0000110f-0000-1000-8000-00805f9b34fb"


def number(uuid):
    """The profile number of a service UUID."""
    return int(uuid[:8], 16)
