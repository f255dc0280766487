#pragma once

#include <sys/types.h>
#include <string>

namespace UnitTest {

/// A dbus-daemon of the test's own, with the limits of a system bus and a policy that allows everything. It is the
/// process's system bus: DBUS_SYSTEM_BUS_ADDRESS names it. Ends with the object, at the latest with the test program.
///
/// One at a time: libdbus reads the variable once in a process, so every PrivateBus of a process has the same address.
/// Made on the main thread (the daemon is killed when the thread that started it ends).
class PrivateBus {
public:
    /// Starts the daemon and waits until it listens. `extraConfig` goes into its configuration, e.g. <limit> elements.
    /// Ends the test program with a message when there is no dbus-daemon to run.
    explicit PrivateBus(const std::string& extraConfig = {});
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// The address, in libdbus's form; the same for every PrivateBus of the process.
    static const std::string& address();

    /// Kills the daemon (SIGKILL) and waits for its end: the bus dies under its connections. No effect when dead.
    void kill();
    /// Stops the daemon as a debugger would (true), or lets it go on (false): the bus hangs, but does not die.
    void freeze(bool frozen);

private:
    pid_t daemon_ = -1;
};

}  // namespace UnitTest
