#include "tests/unit/simulator/SimulatorTest.h"

#include <fmt/format.h>

#include <future>

#include "simulator/Program.h"

namespace SimulatorTests {

SimulatorTest::SimulatorTest(const std::string& scenario) {
    // Kept by the thread, too: it tells also when it ends without having been ready.
    const auto ready = std::make_shared<std::promise<bool>>();
    auto isReady = ready->get_future();
    thread_ = std::thread([this, ready, scenario] {
        Simulator::Options options;
        options.bus = UnitTest::PrivateBus::address();
        options.scenario = scenario;
        bool isTold = false;
        exitCode_ = Simulator::simulate(options, [&] {
            isTold = true;
            ready->set_value(true);
        });
        if (!isTold) ready->set_value(false);
    });
    if (!isReady.get()) ADD_FAILURE() << "the simulator did not begin";
    client_ = std::make_unique<Client>();
}

SimulatorTest::~SimulatorTest() {
    client_ = std::make_unique<Client>();  // a test may have used up its own
    client_->control("Quit");
    thread_.join();
    EXPECT_EQ(exitCode_, 0);
}

Client& SimulatorTest::client() {
    return *client_;
}

std::string SimulatorTest::device(const std::string& model, const Simulator::NamedValues& properties) {
    const auto result =
        client_->control("AddDevice", {path(kHci0), text(fmt::format("00:00:00:00:00:{:02X}", ++devices_)), text(model),
                                       Simulator::dictionary(properties)});
    return result.empty() ? "" : result[0].text();
}

void SimulatorTest::tune(const std::string& what, std::uint32_t milliseconds) {
    client_->control("Tune", {text(what), Value::uint32(milliseconds)});
}

std::uint64_t SimulatorTest::callCount(const std::string& member, const std::string& object) {
    return client_->control("CallCount", {text(object), text(member)}).at(0).number();
}

}  // namespace SimulatorTests
