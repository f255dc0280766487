#include "simulator/Program.h"

#include <fmt/format.h>

#include <cstdio>

#include "simulator/Bus.h"
#include "simulator/Control.h"
#include "simulator/Loop.h"
#include "simulator/Scenario.h"
#include "simulator/Simulation.h"

namespace Simulator {

int complain(const std::string& text, int exitCode) {
    fmt::print(stderr, "bluez-simulator: {}\n", text);
    return exitCode;
}

int simulate(const Options& options, const std::function<void()>& ready) {
    const NamedScenario* scenario = findScenario(options.scenario);
    if (!scenario) {
        return complain(
            fmt::format("there is no scenario '{}'; --list-scenarios tells which there are", options.scenario));
    }
    const auto loop = Loop::create();
    if (!loop) return complain("the kernel gives no descriptors for an event loop");
    std::string error;
    const auto bus = Bus::connect(*loop, options.bus, error);
    if (!bus) return complain(error);

    Narrator narrator(options.detail);
    Simulation simulation(*loop, *bus, narrator);
    Control control(simulation, scenario->name);
    bus->onCall = [&](const Call& call) {
        if (!control.handle(call)) simulation.handle(call);
    };
    bus->onClientGone = [&](const std::string& client) { simulation.clientGone(client); };
    simulation.world().objects.setQuiet(true);
    simulation.load(scenario->make());
    simulation.world().objects.setQuiet(false);
    loop->atEnd([&simulation] { simulation.end(); });
    if (!bus->ownName("org.bluez", error)) return complain(error);
    simulation.announce();
    ready();
    return loop->run() == 0 ? 0 : complain("lost the connection to the bus");
}

}  // namespace Simulator
