"""What the service does on a BlueZ with two controllers, told so that it holds on the real one and on the simulator."""

from scenarios import adapters, comings, pairing  # noqa: F401  pylint: disable=unused-import
from scenarios.words import SCENARIOS  # noqa: F401
