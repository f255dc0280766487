#ifndef SIMULATOR_PROGRAM_H
#define SIMULATOR_PROGRAM_H

#include <functional>
#include <string>

#include "simulator/Narrator.h"

namespace Simulator {

struct Options {
    std::string bus;  // address; empty: the system bus
    std::string scenario = "two-adapters";
    Narrator::Detail detail = Narrator::Detail::Nothing;
};

/// Takes org.bluez on the bus and plays the scenario until SIGTERM, SIGINT or Quit, then returns 0. Returns 1, with a
/// message on standard error, when it cannot begin or the bus goes away. `ready` is called once the name is owned.
int simulate(const Options& options, const std::function<void()>& ready);

/// Writes "bluez-simulator: " and the text to standard error; returns the exit code.
int complain(const std::string& text, int exitCode = 1);

}  // namespace Simulator

#endif
