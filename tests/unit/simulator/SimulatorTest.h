#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "tests/unit/simulator/Client.h"
#include "tests/unit/support/PrivateBus.h"

namespace SimulatorTests {

/// A simulator on a bus of its own, and a client.
class SimulatorTest : public testing::Test {
protected:
    explicit SimulatorTest(const std::string& scenario = "two-adapters");
    ~SimulatorTest() override;

    /// Puts a device of the model on hci0 that is there from the start; gives its path.
    std::string device(const std::string& model, const Simulator::NamedValues& properties = {});
    /// Sets one of the simulator's times.
    void tune(const std::string& what, std::uint32_t milliseconds);
    std::uint64_t callCount(const std::string& member, const std::string& path = "*");

private:
    UnitTest::PrivateBus bus_;
    std::thread thread_;
    int exitCode_ = -1;
    int devices_ = 0;

protected:
    std::unique_ptr<Client> client_;
    Client& client();
};

}  // namespace SimulatorTests
