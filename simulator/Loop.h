#ifndef SIMULATOR_LOOP_H
#define SIMULATOR_LOOP_H

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>

namespace Simulator {

using std::chrono::milliseconds;

/// A clock's alarm, set by Loop: rings once, on the monotonic clock. Destroying it or stop() takes the alarm back, also
/// from inside its own function.
class Timer {
public:
    struct State;

    Timer();
    explicit Timer(std::unique_ptr<State> state);
    Timer(Timer&& other) noexcept;
    Timer& operator=(Timer&& other) noexcept;
    ~Timer();

    void stop();
    bool isRunning() const;

private:
    std::unique_ptr<State> state_;
};

/// The event loop of the simulator's only thread. Everything in the simulator happens on it, one thing after the other.
class Loop {
public:
    /// SIGTERM and SIGINT, blocked by this, end run() with 0. Null when the kernel refuses the descriptors.
    static std::unique_ptr<Loop> create();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// `function` may destroy the timer, or whatever owns it.
    [[nodiscard]] Timer after(milliseconds delay, std::function<void()> function);
    /// `function` is called when run() is about to return because of a signal or end(), while the bus still takes
    /// messages. One at most.
    void atEnd(std::function<void()> function);

    /// Waits and serves until end() or a signal; returns the exit code.
    int run();
    void end(int exitCode);

    sd_event* raw() const { return event_; }

private:
    explicit Loop(sd_event* event) : event_(event) {}

    static int ending(sd_event_source*, void* self);

    sd_event* event_;
    std::function<void()> atEnd_;
};

}  // namespace Simulator

#endif
