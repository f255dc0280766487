#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "adapters/Adapter.h"
#include "adapters/Adapters.h"
#include "platform/host/Crc.h"
#include "tests/unit/support/FakeBluez.h"
#include "tests/unit/support/LogCapture.h"
#include "tests/unit/support/NodeRoot.h"
#include "tests/unit/support/PrivateBus.h"
#include "tests/unit/support/RunningService.h"

namespace UnitTest {

/// Controllers that no machine has, so that sysfs knows no product name of theirs.
inline constexpr const char* kPath = "/org/bluez/unit0";
inline constexpr const char* kOtherPath = "/org/bluez/unit1";
inline constexpr const char* kAddress = "00:1A:7D:DA:71:13";
inline constexpr const char* kOtherAddress = "00:1A:7D:DA:71:14";

inline std::uint64_t nodeIdOf(std::string_view path) {
    namespace CRC = Libraries::Filter::CRC;
    const Ref<CRC::CRC64> checksum = CRC::CRC64::create(CRC::Type::Default, true);
    checksum->write(path);
    return checksum->value();
}

/// A service with the adapters of a fake BlueZ; the test scripts BlueZ, then starts it.
class WithAdapters : public ::testing::Test {
protected:
    using Adapter = Services::Bluetooth::Linux::Adapter;
    using Adapters = Services::Bluetooth::Linux::Adapters;

    void start() {
        service_.emplace();
        ASSERT_EQ(service_->start(), RunningService::Start::Running);
    }
    /// Starts with one adapter at kPath.
    void startWithAdapter(bool discovering = false) {
        bluez_.addAdapter(kPath, kAddress, "controller", discovering);
        ASSERT_NO_FATAL_FAILURE(start());
        ASSERT_TRUE(adapter());
        log_.forget();
        bluez_->forgetCalls();
    }
    void startWithTwoAdapters() {
        bluez_.addAdapter(kOtherPath, kOtherAddress, "other");
        ASSERT_NO_FATAL_FAILURE(startWithAdapter());
        ASSERT_TRUE(adapter(kOtherPath));
    }

    Adapters& adapters() { return (*service_)->adapters(); }
    Ref<Adapter> adapter(std::string_view path = kPath) { return adapters().findAdapter(nodeIdOf(path)); }

    /// The calls of org.bluez.Adapter1's own methods so far, as "PATH METHOD".
    std::vector<std::string> discoveryCalls() {
        std::vector<std::string> made;
        for (const FakePeer::Call& call : bluez_->calls()) {
            if (call.interface == FakeBluez::kAdapter) made.push_back(call.path + " " + call.member);
        }
        return made;
    }
    /// The property reads at this path so far, as their arguments.
    std::vector<std::string> reads(std::string_view path = kPath) {
        std::vector<std::string> made;
        for (const FakePeer::Call& call : bluez_->calls()) {
            if (call.interface == FakeBluez::kProperties && call.path == path) made.push_back(call.arguments);
        }
        return made;
    }

    PrivateBus bus_;
    FakeBluez bluez_;
    LogCapture log_;
    std::optional<RunningService> service_;
};

}  // namespace UnitTest
