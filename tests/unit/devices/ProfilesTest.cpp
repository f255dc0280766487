#include "tests/unit/devices/World.h"

namespace UnitTest {
namespace {

using State = PairingState;
using Records = std::vector<std::string>;
using std::chrono::milliseconds;

constexpr const char* kSink = "0000110b-0000-1000-8000-00805f9b34fb";
constexpr const char* kSource = "0000110a-0000-1000-8000-00805f9b34fb";

class Profiles : public World {
protected:
    const std::string path_ = kPath;

    /// A device that has just been paired, with these profiles.
    Ref<Device> makePairedNow(std::vector<std::string> uuids) {
        offer(kPath, std::move(uuids));
        return pairNow(makeUnpaired());
    }

    Ref<Device> pairNow(Ref<Device> device) {
        bluez_.on(kDeviceInterface, "Pair", FakePeer::answers());
        EXPECT_EQ(connect(device)->answer(), Connected(0, ""));
        settle();
        bluez_.forgetCalls();
        log_.forget();
        return device;
    }

    /// Through the table, as it happens when a device that is being unpaired is removed.
    static void fallBackToUnpaired(const Ref<Device>& device) {
        DeviceProbe::setPairingState(*device, State::Unpairing);
        ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Unpaired));
    }

    static std::vector<std::uint32_t> numbers(const Ref<Device>& device) {
        std::vector<std::uint32_t> all;
        for (std::size_t index = 0; index < device->profileCount(); ++index) {
            all.push_back(device->profileAt(index)->number());
        }
        return all;
    }

    std::size_t connectCalls() const { return bluez_.count(kDeviceInterface, "ConnectProfile"); }
};

// Reading

TEST_F(Profiles, AreReadInBluezsOrderWhenAPairingSucceeds) {
    const Ref<Device> device = makePairedNow({kSource, kSink, "00001124-0000-1000-8000-00805f9b34fb"});
    EXPECT_EQ(numbers(device), (std::vector<std::uint32_t>{0x110A, 0x110B, 0x1124}));
    EXPECT_EQ(viewOf(device->profileAt(1)->uuid()), kSink);
    EXPECT_FALSE(device->profileAt(1)->active());
}

TEST_F(Profiles, WithUuidsOfAnotherFormAreSkipped) {
    const Ref<Device> device = makePairedNow({
        "110a",                                   // no "-"
        "0000110a",                               // eight digits and nothing behind them
        "0000110g-0000-1000-8000-00805f9b34fb",   // no hexadecimal digit
        "000110a-0000-1000-8000-00805f9b34fb",    // first "-" at 7
        "00000110a-0000-1000-8000-00805f9b34fb",  // first "-" at 9
        "",
        "-0000110a-0000",
        "+000110a-0000-1000-8000-00805f9b34fb",
        "0x00110a-0000-1000-8000-00805f9b34fb",
        " 000110a-0000-1000-8000-00805f9b34fb",
        "0000110A-0000-1000-8000-00805F9B34FB",  // upper case is as good
        "FFFFFFFF-",
    });
    EXPECT_EQ(numbers(device), (std::vector<std::uint32_t>{0x110A, 0xFFFFFFFF}));
}

TEST_F(Profiles, AreCountedInTheLog) {
    offer(kPath, std::vector<std::string>(12, kSink));
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::answers());
    EXPECT_EQ(connect(device)->answer(), Connected(0, ""));
    EXPECT_EQ(log_.count("1 Successfully retrieved ch (12) profiles for " + path_), 1u);
}

TEST_F(Profiles, ThatCannotBeReadAreLogged) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", FakePeer::answers());
    EXPECT_EQ(connect(device)->answer(), Connected(0, ""));
    EXPECT_EQ(device->profileCount(), 0u);
    EXPECT_EQ(log_.count("1 Retrieving profiles for " + path_), 1u);
    EXPECT_EQ(log_.count("3 Did not retreive any profiles for " + path_), 1u);
}

TEST_F(Profiles, AreNoneWhenThePropertyIsNoListOfStrings) {
    const Ref<Device> device = makeUnpaired();
    bluez_.setProperty(kPath, kDeviceInterface, "UUIDs", kSink);
    pairNow(device);
    fallBackToUnpaired(device);
    bluez_.setProperty(kPath, kDeviceInterface, "UUIDs", std::vector<ObjectPath>{{"/a"}, {"/b"}});
    pairNow(device);
    fallBackToUnpaired(device);
    bluez_.setProperty(kPath, kDeviceInterface, "UUIDs", BusDict{{kSink, true}});
    pairNow(device);
    EXPECT_EQ(device->profileCount(), 0u);
}

TEST_F(Profiles, AreNoneWhenTheReplyHasNoVariant) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kProperties, "Get",
              FakePeer::answers([](DBusMessageIter* iter) { append(iter, std::vector<std::string>{kSink}); }));
    pairNow(device);
    EXPECT_EQ(device->profileCount(), 0u);
}

TEST_F(Profiles, AreAppendedWhenAPairingLeadsBackFromUnpairing) {
    const Ref<Device> device = makePairedNow({kSink});
    DeviceProbe::setPairingState(*device, State::Unpairing);
    ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Paired));
    EXPECT_EQ(numbers(device), (std::vector<std::uint32_t>{0x110B, 0x110B}));
    EXPECT_EQ(log_.count("1 Successfully retrieved 2h (2) profiles for " + path_), 1u);
}

TEST_F(Profiles, StayAsTheyWereWhenALaterReadFails) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.removeProperty(kPath, kDeviceInterface, "UUIDs");
    DeviceProbe::setPairingState(*device, State::Unpairing);
    ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Paired));
    EXPECT_EQ(numbers(device), (std::vector<std::uint32_t>{0x110B}));
    EXPECT_EQ(log_.count("1 Successfully retrieved 1h (1) profiles for " + path_), 1u);
}

TEST_F(Profiles, AreForgottenWhenTheDeviceIsUnpairedAndReadAfresh) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    EXPECT_EQ(device->activateProfile(0x110B), 0);
    fallBackToUnpaired(device);
    EXPECT_EQ(device->profileCount(), 0u);
    offer(kPath, {kSource, kSink});
    pairNow(device);
    EXPECT_EQ(numbers(device), (std::vector<std::uint32_t>{0x110A, 0x110B}));
    EXPECT_FALSE(device->profileAt(1)->active());
}

TEST_F(Profiles, BeyondTheEndAreNone) {
    const Ref<Device> device = makePairedNow({kSink});
    EXPECT_FALSE(device->profileAt(1));
    EXPECT_FALSE(device->profileAt(~std::size_t{0}));
}

TEST_F(Profiles, MayBeThousands) {
    std::vector<std::string> uuids;
    for (int number = 0; number < 5000; ++number) {
        char uuid[40];
        std::snprintf(uuid, sizeof uuid, "%08x-0000-1000-8000-00805f9b34fb", number);
        uuids.emplace_back(uuid);
    }
    const Ref<Device> device = makePairedNow(uuids);
    EXPECT_EQ(device->profileCount(), 5000u);
    EXPECT_EQ(device->profileAt(4999)->number(), 4999u);
}

// Activating

TEST_F(Profiles, AreConnectedByTheirUuid) {
    const Ref<Device> device = makePairedNow({kSource, kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    EXPECT_EQ(device->activateProfile(0x110B), 0);
    EXPECT_FALSE(device->profileAt(0)->active());
    EXPECT_TRUE(device->profileAt(1)->active());
    ASSERT_EQ(bluez_.calls().size(), 1u);
    EXPECT_EQ(bluez_.calls()[0].text(), path_ + " org.bluez.Device1.ConnectProfile(\"" + kSink + "\")");
    EXPECT_EQ(log_.records(), (Records{"1 Activate profile 110bh (4363) for device " + path_,
                                       "1 Activated profile 110bh (4363) for device " + path_}));
}

TEST_F(Profiles, ThatAreNotInTheListAreNotConnected) {
    const Ref<Device> device = makePairedNow({kSink});
    EXPECT_EQ(device->activateProfile(0x110A), -1);
    EXPECT_EQ(connectCalls(), 0u);
    EXPECT_EQ(log_.records(), Records{});
}

TEST_F(Profiles, ListedTwiceAreConnectedOnlyOnce) {
    const Ref<Device> device = makePairedNow({kSink, kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    EXPECT_EQ(device->activateProfile(0x110B), 0);
    EXPECT_TRUE(device->profileAt(0)->active());
    EXPECT_FALSE(device->profileAt(1)->active());
    EXPECT_EQ(device->activateProfile(0x110B), -1);
    EXPECT_EQ(connectCalls(), 1u);
}

TEST_F(Profiles, ThatBluezCannotConnectStayInactive) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::fails("org.bluez.Error.NotAvailable", "no such profile"));
    EXPECT_EQ(device->activateProfile(0x110B), -1);
    EXPECT_FALSE(device->profileAt(0)->active());
    EXPECT_EQ(log_.records(),
              (Records{"1 Activate profile 110bh (4363) for device " + path_,
                       "4 Could not activate profile 110bh (4363) for device " + path_ + ": no such profile"}));
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    EXPECT_EQ(device->activateProfile(0x110B), 0);
}

TEST_F(Profiles, AreGivenASecondToConnect) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::silent());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(device->activateProfile(0x110B), -1);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, milliseconds(1000));
    EXPECT_LT(took, milliseconds(6000));
    EXPECT_FALSE(device->profileAt(0)->active());
}

TEST_F(Profiles, AreNotConnectedOnceTheServiceIsGone) {
    const Ref<Device> device = makePairedNow({kSink});
    endService();
    log_.forget();
    EXPECT_EQ(device->activateProfile(0x110B), -1);
    EXPECT_EQ(log_.records(), Records{"1 Activate profile 110bh (4363) for device " + path_});
}

// Waiting

TEST_F(Profiles, AreNotReadWhileOneIsBeingConnected) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", bluez_.holds());
    const auto activating = activate(device, 0x110B);
    const auto call = bluez_.takeHeld();
    ASSERT_TRUE(call);
    Request<std::size_t> reader([device] { return device->profileCount(); });
    EXPECT_FALSE(reader.answeredWithin(milliseconds(50)));
    call->reply();
    EXPECT_EQ(reader.answer(), 1u);
    EXPECT_EQ(activating->answer(), 0);
}

TEST_F(Profiles, AReaderThatHangsUpDoesNotWaitForTheOneBeingConnected) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", bluez_.holds());
    const auto activating = activate(device, 0x110B);
    const auto call = bluez_.takeHeld();
    ASSERT_TRUE(call);
    Request<bool> reader([device] {
        return device->profileCount() == 0 && !device->profileAt(0) && device->activateProfile(0x110B) == -1;
    });
    reader.interrupt(Level::HangUp);
    EXPECT_TRUE(reader.answer());
    EXPECT_FALSE(activating->answeredWithin(milliseconds(0)));
    call->reply();
    EXPECT_EQ(activating->answer(), 0);
}

TEST_F(Profiles, AHangUpFreesTheListAndALateAnswerStillCounts) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", bluez_.holds());
    const auto activating = activate(device, 0x110B);
    const auto call = bluez_.takeHeld();
    ASSERT_TRUE(call);
    activating->interrupt(Level::HangUp);
    EXPECT_EQ(activating->answer(), -1);
    EXPECT_EQ(device->profileCount(), 1u);
    EXPECT_FALSE(device->profileAt(0)->active());
    call->reply();
    EXPECT_TRUE(waitUntil([&] { return device->profileAt(0)->active(); }));
    EXPECT_TRUE(log_.waitFor("1 Activated profile 110bh (4363) for device " + path_));
}

// Races

TEST_F(Profiles, ThePairsAnswerWaitsForTheListWhileConnectProfileIsAnswered) {
    const Ref<Device> device = makePairedNow({kSink});
    DeviceProbe::forceState(*device, State::Unpaired);  // with a list, which no road leads to yet
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    bluez_.on(kDeviceInterface, "ConnectProfile", bluez_.holds());
    const auto activating = activate(device, 0x110B);
    const auto call = bluez_.takeHeld();
    ASSERT_TRUE(call);
    pair->reply();
    // The dispatch thread has the UUIDs, and needs the list for them.
    ASSERT_TRUE(waitForThreadsBefore(DeviceProbe::profilesLock(*device), 1));
    call->reply();
    EXPECT_EQ(activating->answer(), 0);  // and not -1, as at its time-out
    EXPECT_EQ(request->answer(), Connected(0, ""));
    EXPECT_EQ(numbers(device), (std::vector<std::uint32_t>{0x110B, 0x110B}));
    EXPECT_TRUE(device->profileAt(0)->active());
}

TEST_F(Profiles, TheEndOfTheServiceDoesNotWaitForOneBeingConnected) {
    for (const bool readable : {true, false}) {
        // The dispatch thread needs the list for the UUIDs and, when there are none to be had, for counting what it
        // has.
        SCOPED_TRACE(readable);
        const Ref<Device> device = makeUnpaired();
        if (readable) {
            offer(kPath, {kSink});
        } else {
            bluez_.removeProperty(kPath, kDeviceInterface, "UUIDs");
        }
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        DeviceProbe::profilesLock(*device)->enterAlways();
        pair->reply();
        const bool waits = waitForThreadsBefore(DeviceProbe::profilesLock(*device), 1);
        dispatchInterrupt_.raise(Level::End);
        const bool answered = request->answeredWithin();
        DeviceProbe::profilesLock(*device)->leave();
        ASSERT_TRUE(waits);
        EXPECT_TRUE(answered);
        EXPECT_EQ(request->answer(), Connected(0, ""));
        settle();
        EXPECT_EQ(device->profileCount(), 0u);
        dispatchInterrupt_.reset();
        log_.forget();
    }
}

TEST_F(Profiles, AreEmptiedWhileOneIsBeingConnected) {
    const Ref<Device> device = makePairedNow({kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", bluez_.holds());
    const auto activating = activate(device, 0x110B);
    const auto call = bluez_.takeHeld();
    ASSERT_TRUE(call);
    fallBackToUnpaired(device);  // without waiting
    EXPECT_FALSE(activating->answeredWithin(milliseconds(0)));
    call->reply();
    EXPECT_EQ(activating->answer(), 0);
    EXPECT_EQ(device->profileCount(), 0u);
}

TEST_F(Profiles, AreEmptiedBetweenCountingAndReading) {
    const Ref<Device> device = makePairedNow({kSink});
    ASSERT_EQ(device->profileCount(), 1u);
    const Ref<Profile> kept = device->profileAt(0);
    fallBackToUnpaired(device);
    EXPECT_FALSE(device->profileAt(0));
    EXPECT_EQ(kept->number(), 0x110Bu);  // whoever has one may go on with it
}

TEST_F(Profiles, AreEmptiedAndFilledWhileClientsReadAndActivate) {
    const Ref<Device> device = makePairedNow({kSource, kSink});
    bluez_.on(kDeviceInterface, "ConnectProfile", FakePeer::answers());
    std::atomic<bool> ends{false};
    Request<bool> reader([&] {
        while (!ends) {
            const std::size_t count = device->profileCount();
            for (std::size_t index = 0; index < count; ++index) {
                if (const Ref<Profile> profile = device->profileAt(index)) {
                    EXPECT_TRUE(profile->number() == 0x110A || profile->number() == 0x110B);
                    EXPECT_EQ(profile->uuid()->length(), 36u);
                }
            }
        }
        return true;
    });
    Request<bool> activator([&] {
        while (!ends) {
            device->activateProfile(0x110A);
            device->activateProfile(0x110B);
        }
        return true;
    });
    for (int round = 0; round < 500; ++round) {
        DeviceProbe::setPairingState(*device, State::Unpairing);
        ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Unpaired));
        ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Pairing));
        ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Paired));
        log_.forget();
    }
    ends = true;
    EXPECT_TRUE(reader.answer());
    EXPECT_TRUE(activator.answer());
    EXPECT_EQ(device->profileCount(), 2u);
}

}  // namespace
}  // namespace UnitTest
