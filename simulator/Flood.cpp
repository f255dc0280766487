#include "simulator/Flood.h"

#include <algorithm>

namespace Simulator {

namespace {

using namespace std::chrono_literals;

constexpr auto kInterval = 5ms;
constexpr std::uint64_t kMostWaiting = 1000;  // messages in the queue to the bus

}  // namespace

void Flood::setRate(std::uint32_t rate) {
    rate_ = rate;
    due_ = 0;
    last_ = std::chrono::steady_clock::now();
    timer_.stop();
    if (rate_) timer_ = world_.loop.after(kInterval, [this] { pour(); });
}

void Flood::pour() {
    timer_ = world_.loop.after(kInterval, [this] { pour(); });
    const auto now = std::chrono::steady_clock::now();
    // A second without a turn is not made up for.
    due_ += std::min(std::chrono::duration<double>(now - last_).count(), 1.0) * rate_;
    last_ = now;
    const auto devices = devices_();
    if (devices.empty()) return;
    for (; due_ >= 1.0 && world_.bus.backlog() < kMostWaiting; due_ -= 1.0) {
        const std::string& path = devices[next_++ % devices.size()];
        world_.objects.tellChanged(path, kDevice1, {{"RSSI", Value::int16(world_.newRssi())}});
        ++sent_;
    }
    due_ = std::min(due_, static_cast<double>(rate_));
}

}  // namespace Simulator
