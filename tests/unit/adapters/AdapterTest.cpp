#include "tests/unit/adapters/AdapterFixture.h"

namespace UnitTest {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

class AdapterProperties : public WithAdapters {};

TEST_F(AdapterProperties, AreReadOnceInTheOrderAddressDiscoveringName) {
    bluez_.addAdapter(kPath, kAddress, "controller", true);
    start();
    EXPECT_THAT(reads(), ElementsAre(R"("org.bluez.Adapter1", "Address")", R"("org.bluez.Adapter1", "Discovering")",
                                     R"("org.bluez.Adapter1", "Name")"));
    const Ref<Adapter> one = adapter();
    ASSERT_TRUE(one);
    EXPECT_EQ(one->path()->view(), kPath);
    EXPECT_EQ(one->address()->view(), kAddress);
    EXPECT_EQ(one->name()->view(), "controller");
    EXPECT_TRUE(one->discovering());
}

TEST_F(AdapterProperties, WithoutAnAddressThereIsNoAdapterAndNothingElseIsRead) {
    bluez_.addAdapter(kPath, kAddress);
    bluez_->removeProperty(kPath, FakeBluez::kAdapter, "Address");
    start();
    EXPECT_FALSE(adapter());
    EXPECT_THAT(reads(), ElementsAre(R"("org.bluez.Adapter1", "Address")"));
    EXPECT_THAT(log_.records(), Contains("4 Could not obtain address for adapter /org/bluez/unit0"));
    EXPECT_THAT(log_.records(), Not(Contains("1 Adapter added: /org/bluez/unit0")));
}

TEST_F(AdapterProperties, AnAddressThatIsNoStringIsUnreadable) {
    bluez_.addAdapter(kPath, kAddress);
    bluez_->setProperty(kPath, FakeBluez::kAdapter, "Address", std::uint32_t{1});
    bluez_.addAdapter(kOtherPath, kOtherAddress);
    bluez_->setProperty(kOtherPath, FakeBluez::kAdapter, "Address", std::vector<std::string>{kOtherAddress});
    start();
    EXPECT_FALSE(adapter());
    EXPECT_FALSE(adapter(kOtherPath));
    EXPECT_THAT(log_.records(), Contains("4 Could not obtain address for adapter /org/bluez/unit0"));
    EXPECT_THAT(log_.records(), Contains("4 Could not obtain address for adapter /org/bluez/unit1"));
}

TEST_F(AdapterProperties, WithoutAScanningStatusTheAdapterCountsAsNotScanning) {
    bluez_.addAdapter(kPath, kAddress);
    bluez_->removeProperty(kPath, FakeBluez::kAdapter, "Discovering");
    start();
    ASSERT_TRUE(adapter());
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_THAT(log_.records(),
                Contains("3 Could not read out scanning status, assuming no scanning for /org/bluez/unit0"));
}

TEST_F(AdapterProperties, AScanningStatusThatIsNoBooleanIsUnreadable) {
    bluez_.addAdapter(kPath, kAddress);
    bluez_->setProperty(kPath, FakeBluez::kAdapter, "Discovering", std::uint32_t{1});
    start();
    ASSERT_TRUE(adapter());
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_THAT(log_.records(),
                Contains("3 Could not read out scanning status, assuming no scanning for /org/bluez/unit0"));
}

TEST_F(AdapterProperties, WithoutANameTheAdapterIsTheGenericAdapter) {
    bluez_.addAdapter(kPath, kAddress);
    bluez_->removeProperty(kPath, FakeBluez::kAdapter, "Name");
    start();
    ASSERT_TRUE(adapter());
    EXPECT_EQ(adapter()->name()->view(), "GenericAdapter");
    EXPECT_THAT(log_.records(), Contains("3 Could not get name for adapter /org/bluez/unit0"));
}

TEST_F(AdapterProperties, ANameThatIsNoStringIsUnreadable) {
    bluez_.addAdapter(kPath, kAddress);
    bluez_->setProperty(kPath, FakeBluez::kAdapter, "Name", ObjectPath{"/name"});
    start();
    ASSERT_TRUE(adapter());
    EXPECT_EQ(adapter()->name()->view(), "GenericAdapter");
}

TEST_F(AdapterProperties, APathWithoutAControllersNameKeepsTheNameThatBluezGives) {
    bluez_.addAdapter("/controllers/unit0", kAddress, "elsewhere");
    start();
    ASSERT_TRUE(adapter("/controllers/unit0"));
    EXPECT_EQ(adapter("/controllers/unit0")->name()->view(), "elsewhere");
}

TEST_F(AdapterProperties, AreNotFollowedLater) {
    startWithAdapter();
    bluez_->setProperty(kPath, FakeBluez::kAdapter, "Discovering", true);
    bluez_->emit(kPath, FakeBluez::kProperties, "PropertiesChanged", [](DBusMessageIter* arguments) {
        append(arguments, FakeBluez::kAdapter);
        append(arguments, BusDict{{"Discovering", true}, {"Name", "renamed"}});
        append(arguments, std::vector<std::string>{});
    });
    // What is announced next is dispatched after the signal.
    bluez_.addAdapter(kOtherPath, kOtherAddress);
    bluez_.announce(kOtherPath, {{FakeBluez::kAdapter, {}}});
    ASSERT_TRUE(log_.waitFor("1 Adapter added: /org/bluez/unit1"));
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_EQ(adapter()->name()->view(), "controller");
    EXPECT_THAT(reads(), IsEmpty());
}

}  // namespace
}  // namespace UnitTest
