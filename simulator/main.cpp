#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "simulator/Bus.h"
#include "simulator/Control.h"
#include "simulator/Ctl.h"
#include "simulator/Loop.h"
#include "simulator/Narrator.h"
#include "simulator/Scenario.h"
#include "simulator/Simulation.h"

namespace {

using namespace Simulator;

struct Options {
    std::string bus;
    std::string scenario = "two-adapters";
    int readyFd = -1;
    int verbosity = 0;
};

int complain(const std::string& text) {
    fmt::print(stderr, "bluez-simulator: {}\n", text);
    return 1;
}

void tellReady(int readyFd) {
    constexpr std::string_view kReady = "ready\n";
    const int descriptor = readyFd < 0 ? STDOUT_FILENO : readyFd;
    // A waiting script may be gone already; that is no reason to end.
    [[maybe_unused]] const auto written = write(descriptor, kReady.data(), kReady.size());
    if (readyFd >= 0) close(readyFd);
}

int simulate(const Options& options) {
    const NamedScenario* scenario = findScenario(options.scenario);
    if (!scenario)
        return complain(
            fmt::format("there is no scenario '{}'; --list-scenarios tells which there are", options.scenario));
    const auto loop = Loop::create();
    if (!loop) return complain("the kernel gives no descriptors for an event loop");
    std::string error;
    const auto bus = Bus::connect(*loop, options.bus, error);
    if (!bus) return complain(error);
    Narrator narrator(static_cast<Narrator::Detail>(options.verbosity));
    int exitCode = 0;
    {
        Simulation simulation(*loop, *bus, narrator);
        Control control(simulation, scenario->name);
        bus->onCall = [&](const Call& call) {
            if (!control.handle(call)) simulation.handle(call);
        };
        bus->onClientGone = [&](const std::string& client) { simulation.clientGone(client); };
        simulation.load(scenario->make());
        if (!bus->ownName("org.bluez", error)) return complain(error);
        tellReady(options.readyFd);
        exitCode = loop->run();
        bus->onCall = nullptr;
        bus->onClientGone = nullptr;
    }
    if (exitCode != 0) return complain("lost the connection to the bus");
    return 0;
}

void listScenarios() {
    for (const auto& scenario : scenarios()) fmt::print("{:<14} {}\n", scenario.name, scenario.summary);
}

void listModels() {
    for (const auto& model : models()) fmt::print("{:<16} {}\n", model.name, model.summary);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Plays BlueZ on a message bus: adapters, devices and their pairing, without Bluetooth.",
                 "bluez-simulator");
    bool isListingScenarios = false;
    bool isListingModels = false;
    app.add_option("--bus", options.bus, "Address of the bus; without it the system bus (DBUS_SYSTEM_BUS_ADDRESS)");
    app.add_option("--scenario", options.scenario, "What is there at the start")->capture_default_str();
    app.add_option(
        "--ready-fd", options.readyFd,
        "Write \"ready\" to this descriptor, and close it, when org.bluez is there; without it to standard output");
    app.add_flag("-v,--verbose", options.verbosity, "Tell on standard error what happens; twice: also what is read");
    app.add_flag("--list-scenarios", isListingScenarios, "List the scenarios");
    app.add_flag("--list-models", isListingModels, "List the kinds of devices");
    auto* control =
        app.add_subcommand("ctl", "Steer a simulator that runs: ctl METHOD ARGUMENT...; ctl help lists them");
    control->prefix_command();
    CLI11_PARSE(app, argc, argv);
    if (isListingScenarios) return listScenarios(), 0;
    if (isListingModels) return listModels(), 0;
    if (control->parsed()) return ctl(options.bus, control->remaining());
    options.verbosity = std::min(options.verbosity, static_cast<int>(Narrator::Detail::Everything));
    return simulate(options);
}
