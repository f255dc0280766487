#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <string_view>

#include "simulator/Ctl.h"
#include "simulator/Model.h"
#include "simulator/Program.h"
#include "simulator/Scenario.h"

namespace {

using namespace Simulator;

constexpr int kUsage = 2;

void tellReady(int readyFd) {
    constexpr std::string_view kReady = "ready\n";
    const int descriptor = readyFd < 0 ? STDOUT_FILENO : readyFd;
    [[maybe_unused]] const auto written = write(descriptor, kReady.data(), kReady.size());
    if (readyFd >= 0) close(readyFd);
}

void listScenarios() {
    for (const auto& scenario : scenarios()) fmt::print("{:<14} {}\n", scenario.name, scenario.summary);
}

void listModels() {
    for (const auto& model : models()) fmt::print("{:<16} {}\n", model.name, model.summary);
}

}  // namespace

int main(int argc, char** argv) {
    // Whoever waited for "ready" or read the narration may be gone; that is no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    int readyFd = -1;
    int verbosity = 0;
    bool isListingScenarios = false;
    bool isListingModels = false;
    CLI::App app("Plays BlueZ on a message bus: adapters, devices and their pairing, without Bluetooth.",
                 "bluez-simulator");
    app.add_option("--bus", options.bus, "Address of the bus; without it the system bus (DBUS_SYSTEM_BUS_ADDRESS)");
    app.add_option("--scenario", options.scenario, "What is there at the start")->capture_default_str();
    app.add_option("--ready-fd", readyFd,
                   "Write \"ready\" to this descriptor, and close it, when org.bluez is there; without it to standard "
                   "output");
    app.add_flag("-v,--verbose", verbosity, "Tell on standard error what happens; twice: also what is read");
    app.add_flag("--list-scenarios", isListingScenarios, "List the scenarios");
    app.add_flag("--list-models", isListingModels, "List the kinds of devices");
    auto* control = app.add_subcommand("ctl", "Steer a running simulator: ctl METHOD ARGUMENT...; ctl help lists them");
    control->prefix_command();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsage;
    }
    if (isListingScenarios) return listScenarios(), 0;
    if (isListingModels) return listModels(), 0;
    if (control->parsed()) return ctl(options.bus, control->remaining());
    options.detail = static_cast<Narrator::Detail>(std::min(verbosity, static_cast<int>(Narrator::Detail::Everything)));
    return simulate(options, [readyFd] { tellReady(readyFd); });
}
