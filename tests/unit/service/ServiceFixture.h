#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "adapters/Adapters.h"
#include "devices/Devices.h"
#include "tests/unit/support/FakeBluez.h"
#include "tests/unit/support/LogCapture.h"
#include "tests/unit/support/NodeRoot.h"
#include "tests/unit/support/PrivateBus.h"
#include "tests/unit/support/RunningService.h"

namespace UnitTest {

/// A controller that no machine has, so that sysfs knows no product name of it.
inline constexpr const char* kAdapterPath = "/org/bluez/unit0";
inline constexpr const char* kAdapterAddress = "00:1A:7D:DA:71:13";
inline constexpr const char* kAdapterNode = "bluetooth/adapters/00:1A:7D:DA:71:13/adapter";
inline constexpr const char* kDevicePath = "/org/bluez/unit0/dev_00_11_22_33_44_55";
inline constexpr const char* kDeviceAddress = "00:11:22:33:44:55";
inline constexpr const char* kDeviceNode = "bluetooth/devices/00:11:22:33:44:55/device";

class WithService : public ::testing::Test {
protected:
    void start() {
        service_.emplace();
        ASSERT_EQ(service_->start(), RunningService::Start::Running);
    }

    PrivateBus bus_;
    FakeBluez bluez_;
    LogCapture log_;
    std::optional<RunningService> service_;
};

}  // namespace UnitTest
