#pragma once

#include <cstdint>

/// The entry of the process: static initialisers in table order, main, exit code, exit handlers.
class InitCode {
public:
    using Initialiser = void (*)();
    using ExitHandler = void (*)();
    using Main = std::int32_t (*)();

    /// Reason codes of entry().
    static constexpr std::uint32_t kEnd = 0;
    static constexpr std::uint32_t kStart = 1;

    /// Puts an initialiser into the table; a namespace-scope object of this type in each module that needs one, in
    /// whatever order the modules' static objects are made. A null function is an entry that is skipped.
    class Register {
    public:
        explicit Register(Initialiser initialiser);
    };

    /// Calls every non-null entry of the table in table order (what kStart does before main; tests call it alone).
    static void runInitialisers();
    /// Registers a handler for kEnd; handlers run in the reverse order of their registration, and each once. Any
    /// thread.
    static void atExit(ExitHandler handler);
    /// kStart: initialisers, then `main`, then Proc::setExitCode with its result, or with 0 when the process was asked
    /// to end before anybody could be told (Proc::terminationPending). Before the initialisers the heap rule is
    /// installed, the signals are taken and the main thread gets its interrupt. kEnd: the exit handlers, the end of the
    /// host's own thread, and at most 200 ms for log lines that nobody has read yet. Any other reason: nothing. Main
    /// thread only:
    ///
    ///     int main() {
    ///         InitCode::entry(InitCode::kStart, &serviceMain);
    ///         InitCode::entry(InitCode::kEnd, nullptr);
    ///         return Proc::exitCode();
    ///     }
    static void entry(std::uint32_t reason, Main main);
};
