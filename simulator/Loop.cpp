#include "simulator/Loop.h"

#include <csignal>
#include <utility>

namespace Simulator {

struct Timer::State {
    sd_event_source* source = nullptr;
    std::function<void()> function;

    State() = default;
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
        // A disabled source of the loop is not rung any more, also when it was already due.
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
        sd_event_source_unref(source);
    }

    static int ring(sd_event_source*, std::uint64_t, void* state) {
        // The function may destroy the state, so it runs out of a copy of its own.
        const auto function = std::move(static_cast<State*>(state)->function);
        function();
        return 0;
    }
};

Timer::Timer() = default;
Timer::Timer(std::unique_ptr<State> state) : state_(std::move(state)) {}
Timer::Timer(Timer&& other) noexcept = default;
Timer& Timer::operator=(Timer&& other) noexcept = default;
Timer::~Timer() = default;

void Timer::stop() {
    state_.reset();
}

bool Timer::isRunning() const {
    int enabled = SD_EVENT_OFF;
    return state_ && sd_event_source_get_enabled(state_->source, &enabled) > 0;
}

std::unique_ptr<Loop> Loop::create() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    // sd-event reads signals from a descriptor, which gets only what is blocked.
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return nullptr;
    sd_event* event = nullptr;
    if (sd_event_new(&event) < 0) return nullptr;
    std::unique_ptr<Loop> loop(new Loop(event));
    if (sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr) < 0) return nullptr;
    if (sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr) < 0) return nullptr;
    // A bus that is attached to the loop closes itself when the loop ends, with the usual priority.
    sd_event_source* ending = nullptr;
    if (sd_event_add_exit(event, &ending, &Loop::ending, loop.get()) < 0) return nullptr;
    sd_event_source_set_priority(ending, SD_EVENT_PRIORITY_IMPORTANT);
    sd_event_source_set_floating(ending, 1);
    sd_event_source_unref(ending);
    return loop;
}

Loop::~Loop() {
    sd_event_unref(event_);
}

Timer Loop::after(milliseconds delay, std::function<void()> function) {
    auto state = std::make_unique<Timer::State>();
    state->function = std::move(function);
    const auto microseconds = static_cast<std::uint64_t>(std::chrono::microseconds(delay).count());
    constexpr std::uint64_t kAccuracy = 1000;  // µs; the library's default of a quarter of a second is no good here
    if (sd_event_add_time_relative(event_, &state->source, CLOCK_MONOTONIC, microseconds, kAccuracy,
                                   &Timer::State::ring, state.get()) < 0) {
        return {};
    }
    return Timer(std::move(state));
}

void Loop::atEnd(std::function<void()> function) {
    atEnd_ = std::move(function);
}

int Loop::ending(sd_event_source*, void* self) {
    if (const auto function = std::move(static_cast<Loop*>(self)->atEnd_)) function();
    return 0;
}

int Loop::run() {
    return sd_event_loop(event_);
}

void Loop::end(int exitCode) {
    sd_event_exit(event_, exitCode);
}

}  // namespace Simulator
