#include "btnode/AssignedNumbers.h"

#include <gtest/gtest.h>

namespace btnode {
namespace {

using Names = std::vector<std::string>;

TEST(AssignedNumbers, NamesTheServiceClassesOfAPhone) {
    // Class of Device 0x5a020c
    EXPECT_EQ(majorServiceClasses(0x2d0), (Names{"Networking", "Capturing", "Object Transfer", "Telephony"}));
    EXPECT_EQ(deviceClass(2, 3), "Phone: Smartphone");
}

TEST(AssignedNumbers, ServiceClassesLeaveReservedBitsOut) {
    EXPECT_EQ(majorServiceClasses(0), Names{});
    EXPECT_EQ(majorServiceClasses(4), Names{});
    EXPECT_EQ(majorServiceClasses(0x3ff).size(), 9U);
    EXPECT_EQ(majorServiceClasses(0x3ff).front(), "Limited Discoverable");
}

TEST(AssignedNumbers, NamesMajorClasses) {
    EXPECT_EQ(majorDeviceClass(0), "Miscellaneous");
    EXPECT_EQ(majorDeviceClass(9), "Health");
    EXPECT_EQ(majorDeviceClass(31), "Uncategorized");
    EXPECT_EQ(majorDeviceClass(10), "Reserved");
    EXPECT_EQ(majorDeviceClass(-1), "Reserved");
}

TEST(AssignedNumbers, NamesMinorClassesOfEachMajorClass) {
    EXPECT_EQ(minorDeviceClass(1, 3), "Laptop");
    EXPECT_EQ(minorDeviceClass(3, 0), "Fully available");
    EXPECT_EQ(minorDeviceClass(3, 63), "No service available");
    EXPECT_EQ(minorDeviceClass(4, 6), "Headphones");
    EXPECT_EQ(minorDeviceClass(5, 16), "Keyboard");
    EXPECT_EQ(minorDeviceClass(5, 32), "Pointing Device");
    EXPECT_EQ(minorDeviceClass(5, 2), "Gamepad");
    EXPECT_EQ(minorDeviceClass(5, 48 + 5), "Combo Keyboard/Pointing Device, Digitizer Tablet");
    EXPECT_EQ(minorDeviceClass(6, 4), "Display");
    EXPECT_EQ(minorDeviceClass(6, 32 + 16), "Scanner, Printer");
    EXPECT_EQ(minorDeviceClass(7, 1), "Wristwatch");
    EXPECT_EQ(minorDeviceClass(8, 5), "Game");
    EXPECT_EQ(minorDeviceClass(9, 6), "Heart/Pulse Rate Monitor");
}

TEST(AssignedNumbers, SaysNothingAboutMinorClassesThatMeanNothing) {
    for (std::int64_t major = 0; major <= 31; ++major) EXPECT_EQ(minorDeviceClass(major, -1), "") << major;
    for (std::int64_t major = 7; major <= 31; ++major) EXPECT_EQ(minorDeviceClass(major, INT64_MAX), "") << major;
    EXPECT_EQ(minorDeviceClass(2, 0), "");
    EXPECT_EQ(minorDeviceClass(0, 5), "");
    EXPECT_EQ(minorDeviceClass(4, 3), "");
    EXPECT_EQ(minorDeviceClass(4, 60), "");
    EXPECT_EQ(deviceClass(31, 0), "Uncategorized");
}

TEST(AssignedNumbers, NamesProfiles) {
    EXPECT_EQ(profileName(0x1101), "Serial Port");
    EXPECT_EQ(profileName(0x110b), "Audio Sink");
    EXPECT_EQ(profileName(0x1124), "Human Interface Device Service");
    EXPECT_EQ(profileName(0x180f), "Battery");
    EXPECT_EQ(profileName(0x1000), "Service Discovery Server");
    EXPECT_EQ(profileName(0x1100), std::nullopt);
    EXPECT_EQ(profileName(0), std::nullopt);
    EXPECT_EQ(profileName(0xffffffff), std::nullopt);
    // 0x110b in the upper half is another number.
    EXPECT_EQ(profileName(0x110b0000), std::nullopt);
}

TEST(AssignedNumbers, FindsProfilesByName) {
    using Numbers = std::vector<std::uint32_t>;
    const Numbers all = assignedProfiles();
    EXPECT_EQ(profilesNamed("Audio Sink", all), Numbers{0x110b});
    EXPECT_EQ(profilesNamed("audiosink", all), Numbers{0x110b});
    EXPECT_EQ(profilesNamed("A/V remote-control", all), Numbers{0x110e});
    EXPECT_EQ(profilesNamed("audio s", all), (Numbers{0x110a, 0x110b, 0x184e}));
    EXPECT_EQ(profilesNamed("headset", all), Numbers{0x1108});
    EXPECT_EQ(profilesNamed("nothing", all), Numbers{});
    EXPECT_EQ(profilesNamed("", all), Numbers{});
    EXPECT_EQ(profilesNamed("--", all), Numbers{});
    EXPECT_EQ(profilesNamed("audio s", {0x110b, 0x110b, 0x1108}), Numbers{0x110b});
}

}  // namespace
}  // namespace btnode
