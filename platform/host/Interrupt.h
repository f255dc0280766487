#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "platform/host/Mutex.h"

/// Ends the waits of the thread it is bound to. The framework binds one to the thread for as long as that serves a
/// request and raises it when the client hangs up or the process ends; the host binds one to the main thread.
/// Sticky: once raised, every later wait that its level ends returns at once, until reset().
///
/// Which level ends what:
///
///     | wait                                             | Unheard | HangUp | End |
///     | Sem::wait                                        | yes     | yes    | yes |
///     | Thd::sleep, Mon::enter while another is inside   |         | yes    | yes |
///     | a bus call made with a handler for a late answer |         | yes    | yes |
///     | a plain blocking bus call                        |         |        | yes |
///     | Mon::enterAlways, MonGuard                       |         |        |     |
class Interrupt {
public:
    /// Ascending: each level also ends what the lower ones end.
    enum class Level : std::uint8_t {
        None,
        Unheard,  ///< nobody hears the answer, but the call is carried out: ends waits that may last for ever
        HangUp,   ///< the client is gone
        End,      ///< the process ends
    };

    Interrupt() = default;
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    /// Raises to at least `level` and wakes the bound thread if it waits. Any thread, as long as the token lives.
    void raise(Level level) noexcept;
    /// Back to None. While the bound thread waits, it may or may not still see what was raised before.
    void reset() noexcept { level_.store(Level::None); }
    Level level() const noexcept { return level_.load(); }

    /// The token bound to the calling thread, null when there is none.
    static Interrupt* current() noexcept;
    /// Whether the calling thread is interrupted at `level` or above.
    static bool raised(Level level) noexcept;

    /// Binds a token to the calling thread for its own lifetime; nests, the innermost one counts.
    class Bind {
    public:
        explicit Bind(Interrupt& token) noexcept;
        ~Bind();
        Bind(const Bind&) = delete;
        Bind& operator=(const Bind&) = delete;

    private:
        Interrupt* previous_;
    };

    /// Announces that the calling thread is about to wait on `wake` with `mutex`. Constructed before `mutex` is locked
    /// and destroyed after it is unlocked: raise() takes the token's lock first, the waiter's mutex second. The waiter
    /// asks raised() under the mutex, before it waits and after each wake-up. Does nothing on a thread without a token.
    class Waiting {
    public:
        Waiting(std::mutex& mutex, std::condition_variable& wake) noexcept;
        ~Waiting();
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;

    private:
        Interrupt* const token_;
    };

private:
    void setWaiter(std::mutex* mutex, std::condition_variable* wake) noexcept;

    std::atomic<Level> level_{Level::None};
    Mutex lock_;
    std::mutex* waitMutex_ GUARDED_BY(lock_) = nullptr;
    std::condition_variable* waitWake_ GUARDED_BY(lock_) = nullptr;
};
