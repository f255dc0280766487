#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/unit/adapters/AdapterFixture.h"
#include "tests/unit/support/NodeClient.h"

namespace UnitTest {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kReadFailed = "3 failed to read string from file product";

/// Why there is no tree of the test's own in the place of sysfs; empty when there is one.
std::string sysfsProblem;

bool writeFile(const char* path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    return static_cast<bool>(out.flush());
}

/// Puts an empty tree in the place of sysfs, for this process alone: root needs a mount namespace for that, anybody
/// else a user namespace as well. Called before the process has another thread.
bool replaceSysfs() {
    const std::string user = std::to_string(::getuid());
    const std::string group = std::to_string(::getgid());
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
        if (!writeFile("/proc/self/setgroups", "deny") || !writeFile("/proc/self/uid_map", user + " " + user + " 1") ||
            !writeFile("/proc/self/gid_map", group + " " + group + " 1")) {
            return false;
        }
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/sys", "tmpfs", 0, nullptr) == 0;
}

/// One USB controller, hci0, whose device is /sys/devices/pci0000:00/usb1/1-1.
class AdapterName : public WithAdapters {
protected:
    static constexpr const char* kController = "/org/bluez/hci0";

    void SetUp() override {
        if (!sysfsProblem.empty()) GTEST_SKIP() << "no namespace for a sysfs of the test's own: " << sysfsProblem;
        fs::remove_all("/sys/class");
        fs::remove_all("/sys/devices");
        addController("/sys/devices/pci0000:00/usb1/1-1/1-1:1.0/bluetooth/hci0");
        bluez_.addAdapter(kController, kAddress, "BlueZ name");
    }

    static void addController(const fs::path& directory, const fs::path& name = "hci0") {
        fs::create_directories(directory);
        fs::create_directories("/sys/class/bluetooth");
        fs::remove("/sys/class/bluetooth" / name);
        fs::create_symlink(directory, "/sys/class/bluetooth" / name);
    }
    static void writeProduct(const std::string& text, const fs::path& device = "/sys/devices/pci0000:00/usb1/1-1") {
        std::ofstream out(device / "product", std::ios::binary);
        out << text;
        ASSERT_TRUE(out.flush());
    }

    /// Starts the service: the name that the controller got.
    std::string name(std::string_view path = kController) {
        start();
        const Ref<Adapter> one = adapter(path);
        return one ? std::string(one->name()->view()) : "(no adapter)";
    }
};

TEST_F(AdapterName, IsTheProductStringOfTheUsbDevice) {
    writeProduct("CSR8510 A10\n");
    EXPECT_EQ(name(), "CSR8510 A10");
    EXPECT_EQ(log_.count(kReadFailed), 0u);
}

TEST_F(AdapterName, HasNoWhiteSpaceAtItsEnds) {
    writeProduct(" \t CSR8510  A10 \r\n");
    EXPECT_EQ(name(), "CSR8510  A10");
}

TEST_F(AdapterName, IsTheFirstLineAlone) {
    writeProduct("first\nsecond\n");
    EXPECT_EQ(name(), "first");
}

TEST_F(AdapterName, NeedsNoLineBreak) {
    writeProduct("CSR8510 A10");
    EXPECT_EQ(name(), "CSR8510 A10");
}

TEST_F(AdapterName, KeepsBytesThatAreNotUtf8AndReachesClientsWithTheReplacementCharacter) {
    writeProduct("Adapter \xE9\xFF\n");
    EXPECT_EQ(name(), "Adapter \xE9\xFF");
    NodeClient client(std::string("bluetooth/adapters/") + kAddress + "/adapter");
    EXPECT_THAT(client.call("Get", R"({"attribute":"NAME"})"),
                AnyOf(HasSubstr("\"Adapter \xEF\xBF\xBD\xEF\xBF\xBD\""), HasSubstr(R"("Adapter \ufffd\ufffd")")));
}

TEST_F(AdapterName, StaysBluezsWhenTheFirstLineIsEmpty) {
    writeProduct("\nsecond\n");
    EXPECT_EQ(name(), "BlueZ name");
    EXPECT_EQ(log_.count(kReadFailed), 1u);
}

TEST_F(AdapterName, StaysBluezsWhenTheFileIsALineBreak) {
    writeProduct("\n");
    EXPECT_EQ(name(), "BlueZ name");
    EXPECT_EQ(log_.count(kReadFailed), 1u);
}

TEST_F(AdapterName, StaysBluezsWhenTheFileIsEmpty) {
    writeProduct("");
    EXPECT_EQ(name(), "BlueZ name");
    EXPECT_EQ(log_.count(kReadFailed), 1u);
}

TEST_F(AdapterName, IsEmptyWhenTheFirstLineIsBlank) {
    writeProduct("   \n");
    EXPECT_EQ(name(), "");
    EXPECT_EQ(log_.count(kReadFailed), 0u);
}

TEST_F(AdapterName, TakesALineOf1023Characters) {
    writeProduct(std::string(1022, 'x') + "y\n");
    EXPECT_EQ(name(), std::string(1022, 'x') + "y");
}

TEST_F(AdapterName, CutsALongerLineAt1023Characters) {
    writeProduct(std::string(1022, 'x') + "yz\n");
    EXPECT_EQ(name(), std::string(1022, 'x') + "y");
}

TEST_F(AdapterName, CutsAVeryLongLineAt1023Characters) {
    writeProduct(std::string(100'000, 'x'));
    EXPECT_EQ(name(), std::string(1023, 'x'));
}

TEST_F(AdapterName, StaysBluezsInSilenceWithoutAProductFile) {
    EXPECT_EQ(name(), "BlueZ name");
    EXPECT_EQ(log_.count(kReadFailed), 0u);
}

TEST_F(AdapterName, StaysBluezsWhenTheProductFileCannotBeRead) {
    fs::create_directory("/sys/devices/pci0000:00/usb1/1-1/product");
    EXPECT_EQ(name(), "BlueZ name");
    EXPECT_EQ(log_.count(kReadFailed), 1u);
}

TEST_F(AdapterName, StaysBluezsWhenSysfsDoesNotKnowTheController) {
    fs::remove("/sys/class/bluetooth/hci0");
    EXPECT_EQ(name(), "BlueZ name");
    EXPECT_EQ(log_.count(kReadFailed), 0u);
}

TEST_F(AdapterName, StaysBluezsForAControllerThatIsNoChildOfABluetoothFolder) {
    addController("/sys/devices/platform/serial0/hci0");
    writeProduct("never read", "/sys/devices/platform");
    EXPECT_EQ(name(), "BlueZ name");
}

TEST_F(AdapterName, StaysBluezsWhenTheResolvedPathIsTooLong) {
    // 1024 bytes do not fit with their NUL.
    fs::path deep = "/sys/devices";
    while (deep.string().size() < 1024) deep /= std::string(100, 'd');
    addController(deep / "usb1/1-1/1-1:1.0/bluetooth/hci0");
    writeProduct("never read", deep / "usb1/1-1");
    EXPECT_EQ(name(), "BlueZ name");
}

TEST_F(AdapterName, StaysBluezsForAPathWithoutAControllersName) {
    writeProduct("CSR8510 A10\n");
    bluez_.addAdapter("/hci0", kOtherAddress, "elsewhere");
    EXPECT_EQ(name("/hci0"), "elsewhere");
}

TEST_F(AdapterName, IsLookedUpByWhatFollowsTheFirstBluez) {
    addController("/sys/devices/pci0000:00/usb1/1-1/1-1:1.0/bluetooth/hci1", "hci1");
    writeProduct("CSR8510 A10\n");
    bluez_.addAdapter("/bluez/bluez/hci1", kOtherAddress, "nested");
    bluez_.addAdapter("/x/bluez/hci1", "00:1A:7D:DA:71:15", "direct");
    EXPECT_EQ(name("/bluez/bluez/hci1"), "nested");
    EXPECT_EQ(adapter("/x/bluez/hci1")->name()->view(), "CSR8510 A10");
}

TEST_F(AdapterName, IsLookedUpAtTheLastOccurrenceOfEachPartOfThePath) {
    const fs::path device = "/sys/devices/hci0/bluetooth/usb1/1-1";
    addController(device / "1-1:1.0/bluetooth/hci0");
    writeProduct("inner\n", device);
    EXPECT_EQ(name(), "inner");
}

TEST_F(AdapterName, IsGenericWhenBluezHasNoneWhateverSysfsSays) {
    writeProduct("CSR8510 A10\n");
    bluez_->removeProperty(kController, FakeBluez::kAdapter, "Name");
    EXPECT_EQ(name(), "GenericAdapter");
    EXPECT_THAT(log_.records(), Contains("3 Could not get name for adapter /org/bluez/hci0"));
}

}  // namespace
}  // namespace UnitTest

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (!UnitTest::replaceSysfs()) UnitTest::sysfsProblem = std::strerror(errno);
    return RUN_ALL_TESTS();
}
