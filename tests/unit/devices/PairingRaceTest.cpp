#include <barrier>
#include <optional>
#include <random>

#include "tests/unit/devices/World.h"

// Orders of events that only chance brings about, brought about. Where a lock decides an order, the test holds it until
// everybody stands before it; where that is not enough, the threads meet at a barrier, many times.

namespace UnitTest {
namespace {

using State = PairingState;
using std::chrono::milliseconds;

class PairingRace : public World {
protected:
    const std::string path_ = kPath;

    void expectNothingLeft(const Ref<Device>& device) {
        EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
        EXPECT_FALSE(listened(viewOf(device->getPath()).data()));
    }
    static void answerPair(const FakePeer::Request& pair, bool succeeds) {
        if (succeeds) {
            pair.reply();
        } else {
            pair.error("org.bluez.Error.Failed");
        }
    }
    /// How many waiters the list has as early as can be after the change to Cancelling: what the test sees, the
    /// answer's handler might have seen.
    static std::optional<std::size_t> waitersAtTheCancel(Device& device) {
        const Ref<Mon>& door = DeviceProbe::waitersLock(device);
        // An interrupted thread does not sleep before the door but is there at any moment.
        Interrupt hurry;
        hurry.raise(Level::HangUp);
        const Interrupt::Bind bind(hurry);
        std::optional<std::size_t> waiters;
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (!waiters && std::chrono::steady_clock::now() < end) {
            if (!door->enter()) continue;
            if (device.getPairingState() == State::Cancelling) waiters = DeviceProbe::waitersInside(device);
            door->leave();
        }
        return waiters;
    }
    /// Back to the start for the next round.
    void makeUnpairedAgain(const Ref<Device>& device) {
        settle();
        DeviceProbe::forceState(*device, State::Unpaired);
    }
};

// The answer comes between the look at the state and the entry into the list

TEST_F(PairingRace, AnAnswerDoesNotSlipPastWhoeverIsAboutToWait) {
    const Ref<Device> device = makeUnpaired();
    const Ref<Mon>& door = DeviceProbe::waitersLock(*device);
    for (int round = 0; round < 300; ++round) {
        const bool succeeds = round % 2 == 0;
        // Usually whoever came first goes in first.
        const bool answerFirst = round % 4 < 2;
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        door->enterAlways();
        if (answerFirst) answerPair(*pair, succeeds);
        bool allThere = !answerFirst || waitForThreadsBefore(door, 1);
        std::vector<std::unique_ptr<Request<std::uint32_t>>> waiting;
        for (int waiter = 0; waiter < 3; ++waiter) waiting.push_back(awaitPaired(device));
        if (!answerFirst) {
            allThere = waitForThreadsBefore(door, 3);
            answerPair(*pair, succeeds);
        }
        // The three and the dispatch thread.
        allThere = allThere && waitForThreadsBefore(door, 4);
        door->leave();
        EXPECT_TRUE(allThere);
        for (const auto& waiter : waiting) {
            const std::uint32_t result = waiter->answer();
            if (succeeds) {
                EXPECT_EQ(result, ResultCode::kSuccess);
            } else {
                EXPECT_TRUE(result == ResultCode::kFailure || result == ResultCode::kNothingToWaitFor) << result;
            }
        }
        EXPECT_EQ(request->answer().first, succeeds ? 0 : -1);
        makeUnpairedAgain(device);
        expectNothingLeft(device);
    }
}

TEST_F(PairingRace, AnAnswerDoesNotSlipPastADisconnect) {
    const Ref<Device> device = makeUnpaired();
    const Ref<Mon>& door = DeviceProbe::waitersLock(*device);
    for (int round = 0; round < 300; ++round) {
        const bool answerFirst = round % 2 == 0;
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        door->enterAlways();
        std::unique_ptr<Request<std::uint32_t>> cancel;
        if (answerFirst) {
            answerPair(*pair, false);
        } else {
            cancel = disconnect(device);
        }
        bool bothThere = waitForThreadsBefore(door, 1);
        if (answerFirst) {
            cancel = disconnect(device);
        } else {
            answerPair(*pair, false);
        }
        bothThere = bothThere && waitForThreadsBefore(door, 2);
        door->leave();
        EXPECT_TRUE(bothThere);
        const std::uint32_t result = cancel->answer();
        EXPECT_TRUE(result == ResultCode::kSuccess || result == ResultCode::kFailure) << result;
        EXPECT_EQ(request->answer(), Connected(-1, ""));
        EXPECT_EQ(device->getPairingState(), State::Unpaired);
        makeUnpairedAgain(device);
        expectNothingLeft(device);
    }
}

TEST_F(PairingRace, WhoeverSeesThatADeviceIsCancellingSeesWhoWaitsForIt) {
    const Ref<Device> device = makeUnpaired();
    for (int round = 0; round < 1000; ++round) {
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        const auto cancel = disconnect(device);
        EXPECT_EQ(waitersAtTheCancel(*device), 1u);
        answerPair(*pair, false);
        EXPECT_EQ(request->answer(), Connected(-1, ""));
        EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
        settle();
    }
    expectNothingLeft(device);
}

TEST_F(PairingRace, AnAnswerAndManyWaitersWithoutOrder) {
    const Ref<Device> device = makeUnpaired();
    for (int round = 0; round < 1000; ++round) {
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        std::barrier begin(3);
        const auto late = [&] {
            begin.arrive_and_wait();
            return device->waitPaired(Sem::kNoLimit);
        };
        Request<std::uint32_t> one(late);
        Request<std::uint32_t> other(late);
        begin.arrive_and_wait();
        if (round % 2 == 0) {
            pair->reply();
        } else {
            pair->error("org.bluez.Error.Failed");
        }
        one.answer();
        other.answer();
        request->answer();
        makeUnpairedAgain(device);
    }
    expectNothingLeft(device);
}

TEST_F(PairingRace, AnAnswerAndADisconnectWithoutOrder) {
    const Ref<Device> device = makeUnpaired();
    std::mt19937 random(1);
    int cancelled = 0;
    for (int round = 0; round < 400; ++round) {
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        const std::chrono::microseconds delay(random() % 300);  // about as long as an answer is under way
        std::barrier begin(2);
        Request<std::uint32_t> cancel([&] {
            begin.arrive_and_wait();
            const auto start = std::chrono::steady_clock::now();
            while (std::chrono::steady_clock::now() - start < delay) continue;
            return device->unpair();
        });
        begin.arrive_and_wait();
        pair->error("org.bluez.Error.Failed");
        if (cancel.answer() == ResultCode::kSuccess) ++cancelled;
        EXPECT_EQ(request->answer(), Connected(-1, ""));
    }
    settle();
    EXPECT_EQ(device->getPairingState(), State::Unpaired);
    expectNothingLeft(device);
    EXPECT_GT(cancelled, 0);
}

// An old pairing's last steps and the next pairing

TEST_F(PairingRace, TheNextPairingBeginsBeforeTheLastStepsOfTheOldOne) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> first;
    const auto firstPair = beginPairing(device, &first);
    const Ref<PairingAttempt> old = DeviceProbe::attempt(*device);
    // The old answer's handler, stopped in the middle.
    ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Unpaired));

    std::unique_ptr<Request<Connected>> second;
    const auto secondPair = beginPairing(device, &second);
    const auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));

    DeviceProbe::finishAttempt(*device, *old, true, PairingAttempt::Result::Failed);
    EXPECT_EQ(first->answer(), Connected(-1, ""));
    EXPECT_FALSE(second->answeredWithin(milliseconds(50)));
    EXPECT_FALSE(waiting->answeredWithin(milliseconds(0)));
    EXPECT_EQ(device->getPairingState(), State::Pairing);
    EXPECT_TRUE(listened(kPath));
    displayPincode(kPath, "2222");
    EXPECT_EQ(second->answer(), Connected(1, "2222"));
    secondPair->reply();
    EXPECT_EQ(waiting->answer(), ResultCode::kSuccess);
    EXPECT_EQ(device->getPairingState(), State::Paired);
}

TEST_F(PairingRace, EveryConnectGetsTheAnswerToItsOwnPair) {
    const Ref<Device> device = makeUnpaired();
    // The pincode of each pairing is its number, and every pairing fails right after it.
    std::atomic<int> number{0};
    bluez_.on(kDeviceInterface, "Pair", [&](const FakePeer::Request& pair) {
        const int pincode = ++number;
        if (pincode % 3 == 0) {
            pair.error("org.bluez.Error.AuthenticationRejected");
            return;
        }
        FakePeer::Message show(::dbus_message_new_method_call(serviceName_.c_str(), "/com/kelvo/bluetooth/service",
                                                              "org.bluez.Agent1", "DisplayPinCode"),
                               &::dbus_message_unref);
        DBusMessageIter arguments;
        ::dbus_message_iter_init_append(show.get(), &arguments);
        append(&arguments, ObjectPath{kPath});
        append(&arguments, std::to_string(pincode));
        bluez_.send(show);
        pair.error("org.bluez.Error.AuthenticationFailed");
    });
    const auto client = [&] {
        int last = 0;
        while (number < 300) {
            const auto [result, pincode] = device->pair(Sem::kNoLimit);
            if (result != 1) {
                EXPECT_EQ(result, -1);
                EXPECT_FALSE(pincode);
                continue;
            }
            // A client never sees a pincode twice, nor one of a pairing before its own.
            const int shown = std::stoi(pincode->cstr());
            EXPECT_GT(shown, last);
            last = shown;
        }
        return true;
    };
    Request<bool> one(client);
    Request<bool> other(client);
    EXPECT_TRUE(one.answer());
    EXPECT_TRUE(other.answer());
    settle();
    EXPECT_TRUE(waitForState(device, State::Unpaired));
    settle();
    expectNothingLeft(device);
}

TEST_F(PairingRace, ALateCancelDoesNotHitTheNextPairing) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> first;
    const auto firstPair = beginPairing(device, &first);
    const Ref<PairingAttempt> old = DeviceProbe::attempt(*device);
    // A DISCONNECT, stopped before it sends its call.
    ASSERT_TRUE(DeviceProbe::setPairingState(*device, State::Cancelling));
    firstPair->error("org.bluez.Error.AuthenticationFailed");
    EXPECT_EQ(first->answer(), Connected(-1, ""));

    std::unique_ptr<Request<Connected>> second;
    const auto secondPair = beginPairing(device, &second);
    DeviceProbe::cancelUntilSent(*device, *old);
    secondPair->reply();
    EXPECT_EQ(second->answer(), Connected(0, ""));
    EXPECT_EQ(bluez_.count(kDeviceInterface, "CancelPairing"), 0u);
}

TEST_F(PairingRace, ACancelNeverOvertakesItsPair) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    bluez_.on(kDeviceInterface, "CancelPairing", FakePeer::answers());
    for (int round = 0; round < 500; ++round) {
        bluez_.forgetCalls();
        Request<std::uint32_t> cancel([device] {
            // Refused until the pairing has begun, and then as early as can be.
            std::uint32_t result = ResultCode::kFailure;
            while (result != ResultCode::kSuccess) result = device->unpair();
            return result;
        });
        const auto request = connect(device);
        const auto pair = bluez_.takeHeld();
        ASSERT_TRUE(pair);
        ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
        const std::vector<FakePeer::Call> calls = bluez_.calls();
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_EQ(calls[0].member, "Pair");
        pair->error("org.bluez.Error.AuthenticationCanceled");
        EXPECT_EQ(request->answer(), Connected(-1, ""));
        EXPECT_EQ(cancel.answer(), ResultCode::kSuccess);
        settle();
    }
    expectNothingLeft(device);
}

TEST_F(PairingRace, ADeviceThatCameBackTakesOverFromItsPredecessor) {
    Ref<Device> predecessor = makeUnpaired();
    std::unique_ptr<Request<Connected>> first;
    const auto firstPair = beginPairing(predecessor, &first);
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> second;
    const auto secondPair = beginPairing(device, &second);
    firstPair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(first->answer(), Connected(-1, ""));
    first.reset();
    EXPECT_TRUE(goesAway(predecessor));
    EXPECT_TRUE(listened(kPath));
    displayPincode(kPath, "2222");
    EXPECT_EQ(second->answer(), Connected(1, "2222"));
    secondPair->error("org.bluez.Error.Failed");
    EXPECT_TRUE(waitForState(device, State::Unpaired));
    expectNothingLeft(device);
}

// Pincode, answer and DISCONNECT at once

TEST_F(PairingRace, PincodeAnswerAndDisconnectInEveryOrder) {
    enum Event { ShowPincode, Answer, Cancel };
    const Ref<Device> device = makeUnpaired();
    for (const bool succeeds : {true, false}) {
        std::vector<Event> order{ShowPincode, Answer, Cancel};
        do {
            std::unique_ptr<Request<Connected>> request;
            std::unique_ptr<Request<std::uint32_t>> cancel;
            const auto pair = beginPairing(device, &request);
            const auto waiting = awaitPaired(device);
            ASSERT_TRUE(waitForWaiters(device, 1));
            bool answered = false;
            bool cancelled = false;
            std::uint32_t waited = 0;
            std::string trace = succeeds ? "success:" : "error:";
            for (const Event event : order) {
                trace += " " + std::to_string(event);
                switch (event) {
                    case ShowPincode:
                        displayPincode(kPath, "1111");
                        break;
                    case Answer:
                        if (succeeds) {
                            pair->reply();
                        } else {
                            pair->error("org.bluez.Error.Failed");
                        }
                        answered = true;
                        // Before a DISCONNECT that comes next could change what it finds when it wakes.
                        waited = waiting->answer();
                        settle();
                        break;
                    case Cancel:
                        cancel = disconnect(device);
                        cancelled = !answered;
                        if (cancelled) {
                            ASSERT_TRUE(waitForState(device, State::Cancelling));
                            ASSERT_TRUE(waitForWaiters(device, 2));
                        } else {
                            EXPECT_EQ(cancel->answer(), ResultCode::kFailure);
                        }
                        break;
                }
            }
            SCOPED_TRACE(trace);
            const bool paired = succeeds && !cancelled;
            EXPECT_EQ(waited, paired ? ResultCode::kSuccess : ResultCode::kFailure);
            if (cancelled) {
                EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
            }
            // The pincode counts when it was there first; the handler of the answer may have replaced what the request
            // reads when it wakes, but not after.
            const Connected outcome = request->answer();
            if (order.front() == ShowPincode || (order[1] == ShowPincode && order.front() == Cancel)) {
                EXPECT_TRUE(outcome == Connected(1, "1111") || outcome == Connected(succeeds ? 0 : -1, ""));
            } else {
                EXPECT_EQ(outcome, Connected(succeeds ? 0 : -1, ""));
            }
            makeUnpairedAgain(device);
            expectNothingLeft(device);
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST_F(PairingRace, PincodeAnswerAndDisconnectWithoutOrder) {
    const Ref<Device> device = makeUnpaired();
    for (int round = 0; round < 500; ++round) {
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        std::barrier begin(3);
        Request<std::uint32_t> cancel([&] {
            begin.arrive_and_wait();
            return device->unpair();
        });
        Request<std::uint32_t> waiting([&] {
            begin.arrive_and_wait();
            return device->waitPaired(Sem::kNoLimit);
        });
        begin.arrive_and_wait();
        if (round % 4 < 2) displayPincode(kPath, "1111");
        if (round % 2 == 0) {
            pair->reply();
        } else {
            pair->error("org.bluez.Error.AuthenticationFailed");
        }
        const std::int32_t outcome = request->answer().first;
        EXPECT_TRUE(outcome == -1 || outcome == 0 || outcome == 1) << outcome;
        cancel.answer();
        settle();
        // Whoever comes to wait when the device is Unpairing waits for the end of that.
        DeviceProbe::setPairingState(*device, State::Unpaired);
        waiting.answer();
        makeUnpairedAgain(device);
        expectNothingLeft(device);
    }
}

TEST_F(PairingRace, SuccessThoughACancelWasRequestedLeavesNobodyWaiting) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    const auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));
    const auto cancel = disconnect(device);
    ASSERT_TRUE(bluez_.waitForCalls(kDeviceInterface, "CancelPairing"));
    pair->reply();
    EXPECT_EQ(request->answer(), Connected(0, ""));
    EXPECT_EQ(waiting->answer(), ResultCode::kFailure);
    EXPECT_EQ(cancel->answer(), ResultCode::kSuccess);
    EXPECT_EQ(device->getPairingState(), State::Cancelling);
    expectNothingLeft(device);
    EXPECT_EQ(log_.count("1 Device paired: " + path_), 1u);
    EXPECT_EQ(log_.count("1 Retrieving profiles for " + path_), 0u);
    // And nobody who comes later, for there is nothing to come.
    EXPECT_EQ(awaitPaired(device)->answer(), ResultCode::kFailure);
    EXPECT_EQ(disconnect(device)->answer(), ResultCode::kFailure);
    EXPECT_EQ(connect(device)->answer(), Connected(-1, ""));
}

TEST_F(PairingRace, SuccessAfterTheCancelOfASecondPincodeLeavesNobodyWaiting) {
    const Ref<Device> device = makeUnpaired();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    displayPincode(kPath, "1111");
    EXPECT_EQ(request->answer(), Connected(1, "1111"));
    const auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));
    displayPincode(kPath, "2222");
    pair->reply();
    EXPECT_EQ(waiting->answer(), ResultCode::kFailure);
    EXPECT_EQ(device->getPairingState(), State::Cancelling);
    expectNothingLeft(device);
}

TEST_F(PairingRace, OneOfTwoConnectsIsRefusedWithoutACall) {
    const Ref<Device> device = makeUnpaired();
    bluez_.on(kDeviceInterface, "Pair", bluez_.holds());
    for (int round = 0; round < 300; ++round) {
        bluez_.forgetCalls();
        std::barrier begin(2);
        const auto client = [&] {
            begin.arrive_and_wait();
            return device->pair(Sem::kNoLimit).first;
        };
        Request<std::int32_t> one(client);
        Request<std::int32_t> other(client);
        const auto pair = bluez_.takeHeld();
        ASSERT_TRUE(pair);
        // The refused one returns although nothing has been answered.
        ASSERT_TRUE(
            waitUntil([&] { return one.answeredWithin(milliseconds(0)) || other.answeredWithin(milliseconds(0)); }));
        pair->reply();
        EXPECT_EQ(one.answer() + other.answer(), -1);  // 0 and -1
        settle();
        EXPECT_EQ(bluez_.count(kDeviceInterface, "Pair"), 1u);
        makeUnpairedAgain(device);
    }
}

// The device goes

TEST_F(PairingRace, TheDeviceDisappearsInTheMiddleOfAPairing) {
    Ref<Device> device = publish();
    ASSERT_TRUE(device);
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    std::vector<std::unique_ptr<Request<std::uint32_t>>> waiting;
    for (int waiter = 0; waiter < 5; ++waiter) waiting.push_back(awaitPaired(device));
    ASSERT_TRUE(waitForWaiters(device, 5));
    EXPECT_TRUE(service_->devices().removeDevice(text(kPath)));
    pair->error("org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(request->answer(), Connected(-1, ""));
    for (const auto& waiter : waiting) EXPECT_EQ(waiter->answer(), ResultCode::kFailure);
    EXPECT_FALSE(listened(kPath));
    request.reset();
    waiting.clear();
    EXPECT_TRUE(goesAway(device));
}

TEST_F(PairingRace, TheDeviceDisappearsWhileItIsUnpairing) {
    Ref<Device> device = publish();
    DeviceProbe::forceState(*device, State::Paired);
    EXPECT_EQ(device->unpair(), ResultCode::kFailure);
    auto waiting = awaitPaired(device);
    ASSERT_TRUE(waitForWaiters(device, 1));
    EXPECT_TRUE(service_->devices().removeDevice(text(kPath)));
    EXPECT_EQ(waiting->answer(), ResultCode::kFailure);
    waiting.reset();
    EXPECT_TRUE(goesAway(device));
}

TEST_F(PairingRace, TheDeviceDisappearsBeforeItIsUnpaired) {
    Ref<Device> device = publish();
    DeviceProbe::forceState(*device, State::Paired);
    EXPECT_TRUE(service_->devices().removeDevice(text(kPath)));
    // Of a request that found the device before.
    EXPECT_EQ(device->unpair(), ResultCode::kFailure);
    EXPECT_EQ(device->getPairingState(), State::Unpairing);
    auto waiting = awaitPaired(device);
    const bool answered = waiting->answeredWithin();
    if (!answered) waiting->interrupt(Level::HangUp);
    EXPECT_TRUE(answered);
    EXPECT_EQ(waiting->answer(), ResultCode::kFailure);
    EXPECT_EQ(DeviceProbe::waiters(*device), 0u);
    waiting.reset();
    EXPECT_TRUE(goesAway(device));
}

TEST_F(PairingRace, TheDeviceDisappearsWhileAllWaitersHaveHungUp) {
    Ref<Device> device = publish();
    std::unique_ptr<Request<Connected>> request;
    const auto pair = beginPairing(device, &request);
    EXPECT_TRUE(service_->devices().removeDevice(text(kPath)));
    request->interrupt(Level::HangUp);
    EXPECT_EQ(request->answer(), Connected(-1, ""));
    request.reset();
    const WeakRef<Device> weak(device);
    device.reset();
    EXPECT_TRUE(weak.lock());  // the outstanding call and the agent hold it
    pair->error("org.bluez.Error.AuthenticationCanceled");
    EXPECT_TRUE(waitUntil([&] { return !weak.lock(); }));
    settle();
    EXPECT_FALSE(listened(kPath));
}

// Endurance

TEST_F(PairingRace, HundredsOfPairingsWithClientsThatHangUpLeaveNothingBehind) {
    Ref<Device> device = makeUnpaired();
    std::mt19937 random(1);
    const auto chance = [&](unsigned in) { return random() % in == 0; };
    for (int round = 0; round < 300; ++round) {
        std::unique_ptr<Request<Connected>> request;
        const auto pair = beginPairing(device, &request);
        std::vector<std::unique_ptr<Request<std::uint32_t>>> others;
        for (int waiter = 0; waiter < 3; ++waiter) others.push_back(awaitPaired(device));
        ASSERT_TRUE(waitForWaiters(device, 3));  // before a DISCONNECT that leaves the device Unpairing for good
        if (chance(2)) displayPincode(kPath, "1111");
        if (chance(3)) others.push_back(disconnect(device));
        if (chance(2)) request->interrupt(Level::HangUp);
        for (const auto& other : others) {
            if (chance(3)) other->interrupt(Level::HangUp);
        }
        if (chance(2)) {
            pair->reply();
        } else {
            pair->error("org.bluez.Error.AuthenticationFailed");
        }
        request->answer();
        for (const auto& other : others) other->answer();
        makeUnpairedAgain(device);
        expectNothingLeft(device);
    }
    EXPECT_TRUE(goesAway(device));
}

}  // namespace
}  // namespace UnitTest
