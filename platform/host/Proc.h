#pragma once

#include <cstdint>
#include <functional>

#include "platform/host/Interrupt.h"

/// The process.
class Proc {
public:
    /// Ends the process at once with this code; no exit handlers run.
    [[noreturn]] static void exit(int code) noexcept;
    /// The code the process will end with.
    static void setExitCode(std::int32_t code) noexcept;
    static std::int32_t exitCode() noexcept;

    /// From here on SIGTERM and SIGINT do not kill the process: a thread of the host's own takes them. Called once, by
    /// the entry, before any other thread is started. Standard descriptors that are closed are opened on /dev/null and
    /// SIGPIPE is ignored.
    static void takeSignals();
    /// What to do when SIGTERM or SIGINT arrives: called once for each, on the host's signal thread, at once for one
    /// that came before. It returns false when the request could not be delivered yet: then the main thread's waits
    /// are ended (Interrupt::Level::End), and the request stays pending until deliverTermination().
    static void onTermination(std::function<bool()> deliver);
    /// Tries a pending request again, on the calling thread; the main thread's interrupt is reset when it is delivered.
    static void deliverTermination();
    /// Whether SIGTERM or SIGINT has arrived. A process that was asked to end while it started ends with code 0.
    static bool terminationRequested() noexcept;
    /// Whether it has arrived and was not delivered so far.
    static bool terminationPending() noexcept;
    /// The main thread's interrupt, bound to it by the entry.
    static Interrupt& mainInterrupt() noexcept;
};
