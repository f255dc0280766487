"""What the scenario tests share: a private bus, a programmable BlueZ, the service as a process, a Varlink client.

Nothing in here uses a line of the service: the bus is spoken through jeepney's message format, the nodes through plain
sockets. A test states what it expects; whatever does not come within its limit fails with what was there instead.
"""
