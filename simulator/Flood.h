#ifndef SIMULATOR_FLOOD_H
#define SIMULATOR_FLOOD_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "simulator/World.h"

namespace Simulator {

/// Changes of RSSI, device after device, at a steady rate: what a scan in a crowded place makes. When the bus takes
/// them more slowly, the flood waits for it, so that the simulator's memory does not grow; sent() tells what went out.
class Flood {
public:
    Flood(World& world, std::function<std::vector<std::string>()> devices)
        : world_(world), devices_(std::move(devices)) {}

    /// Signals a second; 0 ends the flood.
    void setRate(std::uint32_t rate);
    std::uint64_t sent() const { return sent_; }

private:
    void pour();

    World& world_;
    std::function<std::vector<std::string>()> devices_;
    std::uint32_t rate_ = 0;
    std::uint64_t sent_ = 0;
    double due_ = 0;
    std::size_t next_ = 0;
    std::chrono::steady_clock::time_point last_{};
    Timer timer_;
};

}  // namespace Simulator

#endif
