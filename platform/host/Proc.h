#pragma once

#include <cstdint>
#include <functional>

#include "platform/host/Interrupt.h"

/// The process.
class Proc {
public:
    /// Ends the process at once with this code; no exit handlers run and nothing is flushed. Any thread.
    [[noreturn]] static void exit(int code) noexcept;
    /// The code the process will end with; 0 unless set. Of it the parent sees the low 8 bits. Any thread.
    static void setExitCode(std::int32_t code) noexcept;
    static std::int32_t exitCode() noexcept;

    /// From here on SIGTERM and SIGINT do not kill the process, also where the parent had them ignored: a thread of the
    /// host's own takes them. So it does with SIGHUP, unless the parent had that ignored (nohup). Called once, by the
    /// entry, before any other thread is started. Standard descriptors that are closed are opened on /dev/null and
    /// SIGPIPE is ignored.
    static void takeSignals();
    /// Ends the host's signal thread; a signal that comes later is without effect. Called by the entry at the end.
    static void leaveSignals();

    /// What to do when one of these signals arrives: called on the host's signal thread, at once for one that came
    /// before, and without a lock. It returns false when the request could not be delivered yet: then, after a moment,
    /// the main thread's waits are ended (Interrupt::Level::End), as they are when there is no function, and the
    /// request stays pending until the next signal or deliverTermination(). Signals that come while it is pending are
    /// one request with it; after it was delivered they are without effect. The function must stay callable to the end
    /// of the process.
    static void onTermination(std::function<bool()> deliver);
    /// Tries a pending request again, on the calling thread, or has the thread try again that is just trying. The main
    /// thread's interrupt is reset when it is delivered. Any thread but not from within the function itself.
    static void deliverTermination();
    /// Whether one of these signals has arrived. A process that was asked to end while it started ends with code 0.
    static bool terminationRequested() noexcept;
    /// Whether it has arrived and was not delivered so far.
    static bool terminationPending() noexcept;
    /// The main thread's interrupt, bound to it by the entry.
    static Interrupt& mainInterrupt() noexcept;
};
