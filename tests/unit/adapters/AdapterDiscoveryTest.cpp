#include <chrono>
#include <future>
#include <mutex>

#include "platform/host/Interrupt.h"
#include "tests/unit/adapters/AdapterFixture.h"

namespace UnitTest {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Lt;
using ::testing::StartsWith;

constexpr const char* kNotReady = "org.bluez.Error.NotReady";

/// A call of setDiscovering on a thread of its own, with an interrupt as a request's thread has one.
class DiscoveryRequest {
public:
    DiscoveryRequest(Ref<Services::Bluetooth::Linux::Adapter> adapter, bool start)
        : result_(std::async(std::launch::async, [this, adapter = std::move(adapter), start] {
              const Interrupt::Bind bind(interrupt_);
              return adapter->setDiscovering(start);
          })) {}

    void interrupt(Interrupt::Level level) { interrupt_.raise(level); }
    bool result() { return result_.get(); }
    bool endsWithin(std::chrono::milliseconds limit) { return result_.wait_for(limit) == std::future_status::ready; }

private:
    Interrupt interrupt_;
    std::future<bool> result_;
};

class AdapterDiscovery : public WithAdapters {
protected:
    void onStart(FakePeer::Handler handler) { bluez_->on(FakeBluez::kAdapter, "StartDiscovery", std::move(handler)); }
    void onStop(FakePeer::Handler handler) { bluez_->on(FakeBluez::kAdapter, "StopDiscovery", std::move(handler)); }
};

TEST_F(AdapterDiscovery, StartingAnAdapterThatIsDiscoveringSendsNothing) {
    startWithAdapter(true);
    EXPECT_TRUE(adapter()->setDiscovering(true));
    EXPECT_THAT(discoveryCalls(), IsEmpty());
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AdapterDiscovery, StoppingAnIdleAdapterSendsNothing) {
    startWithAdapter(false);
    EXPECT_TRUE(adapter()->setDiscovering(false));
    EXPECT_THAT(discoveryCalls(), IsEmpty());
    EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(AdapterDiscovery, StartsAndStopsWithOneCallEachWithoutArguments) {
    startWithAdapter();
    onStart(FakePeer::answers());
    onStop(FakePeer::answers());
    EXPECT_TRUE(adapter()->setDiscovering(true));
    EXPECT_TRUE(adapter()->discovering());
    EXPECT_TRUE(adapter()->setDiscovering(false));
    EXPECT_FALSE(adapter()->discovering());
    std::vector<std::string> calls;
    for (const FakePeer::Call& call : bluez_->calls()) calls.push_back(call.text());
    EXPECT_THAT(calls, ElementsAre("/org/bluez/unit0 org.bluez.Adapter1.StartDiscovery()",
                                   "/org/bluez/unit0 org.bluez.Adapter1.StopDiscovery()"));
    EXPECT_THAT(log_.records(), ElementsAre("1 /org/bluez/unit0: start/stop discovery, attempt #1",
                                            "1 Scan started for adapter /org/bluez/unit0",
                                            "1 /org/bluez/unit0: start/stop discovery, attempt #1",
                                            "1 Scan stopped for adapter /org/bluez/unit0"));
}

TEST_F(AdapterDiscovery, AnswerWithArgumentsCountsAsSuccess) {
    startWithAdapter();
    onStart(FakePeer::answers([](DBusMessageIter* arguments) { append(arguments, "whatever"); }));
    EXPECT_TRUE(adapter()->setDiscovering(true));
    EXPECT_TRUE(adapter()->discovering());
}

TEST_F(AdapterDiscovery, GivesUpAfterThreeNotReadyWithPausesOf2500Milliseconds) {
    startWithAdapter();
    std::mutex lock;
    std::vector<steady_clock::time_point> times;
    onStart([&](const FakePeer::Request& request) {
        const std::lock_guard guard(lock);
        times.push_back(steady_clock::now());
        request.error(kNotReady, "Resource Not Ready");
    });
    EXPECT_FALSE(adapter()->setDiscovering(true));
    const auto end = steady_clock::now();
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_THAT(log_.records(), ElementsAre("1 /org/bluez/unit0: start/stop discovery, attempt #1",
                                            "1 /org/bluez/unit0: start/stop discovery, attempt #2",
                                            "1 /org/bluez/unit0: start/stop discovery, attempt #3",
                                            "4 /org/bluez/unit0: start/stop discovery failed (too many retries)"));
    const std::lock_guard guard(lock);
    ASSERT_EQ(times.size(), 3u);
    EXPECT_THAT(times[1] - times[0], AllOf(Ge(2500ms), Lt(7500ms)));
    EXPECT_THAT(times[2] - times[1], AllOf(Ge(2500ms), Lt(7500ms)));
    EXPECT_THAT(end - times[2], Lt(2500ms));
}

TEST_F(AdapterDiscovery, SucceedsAtTheSecondAttemptAfterOneNotReady) {
    startWithAdapter(true);
    std::atomic<bool> refused{false};
    onStop([&](const FakePeer::Request& request) {
        if (refused.exchange(true)) {
            request.reply();
        } else {
            request.error(kNotReady);
        }
    });
    const auto begin = steady_clock::now();
    EXPECT_TRUE(adapter()->setDiscovering(false));
    EXPECT_THAT(steady_clock::now() - begin, AllOf(Ge(2500ms), Lt(7500ms)));
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_THAT(discoveryCalls(), ElementsAre("/org/bluez/unit0 StopDiscovery", "/org/bluez/unit0 StopDiscovery"));
    EXPECT_THAT(log_.records(), ElementsAre("1 /org/bluez/unit0: start/stop discovery, attempt #1",
                                            "1 /org/bluez/unit0: start/stop discovery, attempt #2",
                                            "1 Scan stopped for adapter /org/bluez/unit0"));
}

TEST_F(AdapterDiscovery, AnyOtherErrorEndsTheAttemptsAtOnce) {
    startWithAdapter();
    onStart(FakePeer::fails("org.bluez.Error.InProgress", "Operation already in progress"));
    EXPECT_FALSE(adapter()->setDiscovering(true));
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_THAT(log_.records(), ElementsAre("1 /org/bluez/unit0: start/stop discovery, attempt #1",
                                            "4 /org/bluez/unit0: failed to start/stop discovery: "
                                            "org.bluez.Error.InProgress, Operation already in progress"));
}

TEST_F(AdapterDiscovery, AnErrorNameThatOnlyBeginsLikeNotReadyIsAnotherError) {
    startWithAdapter();
    onStart(FakePeer::fails("org.bluez.Error.NotReadyYet", "text"));
    EXPECT_FALSE(adapter()->setDiscovering(true));
    EXPECT_EQ(discoveryCalls().size(), 1u);
}

TEST_F(AdapterDiscovery, OfTwoOverlappingCallsThatBothSucceedTheLaterInvertsTheStateAgain) {
    startWithAdapter();
    onStart(bluez_->holds());
    DiscoveryRequest first(adapter(), true);
    const auto firstCall = bluez_->takeHeld();
    DiscoveryRequest second(adapter(), true);
    const auto secondCall = bluez_->takeHeld();
    ASSERT_TRUE(firstCall && secondCall);
    firstCall->reply();
    EXPECT_TRUE(first.result());
    EXPECT_TRUE(adapter()->discovering());
    secondCall->reply();
    EXPECT_TRUE(second.result());
    EXPECT_FALSE(adapter()->discovering());
}

TEST_F(AdapterDiscovery, OfTwoOverlappingCallsTheRefusedOneLeavesTheStateAlone) {
    startWithAdapter();
    onStart(bluez_->holds());
    DiscoveryRequest first(adapter(), true);
    const auto firstCall = bluez_->takeHeld();
    DiscoveryRequest second(adapter(), true);
    const auto secondCall = bluez_->takeHeld();
    ASSERT_TRUE(firstCall && secondCall);
    secondCall->error("org.bluez.Error.InProgress");
    EXPECT_FALSE(second.result());
    firstCall->reply();
    EXPECT_TRUE(first.result());
    EXPECT_TRUE(adapter()->discovering());
}

TEST_F(AdapterDiscovery, AClientThatHangsUpIsLetGoAndTheStateFollowsTheLateAnswer) {
    startWithAdapter();
    onStart(bluez_->holds());
    DiscoveryRequest request(adapter(), true);
    const auto call = bluez_->takeHeld();
    ASSERT_TRUE(call);
    request.interrupt(Interrupt::Level::HangUp);
    EXPECT_FALSE(request.result());
    EXPECT_FALSE(adapter()->discovering());
    ASSERT_EQ(log_.records().size(), 2u);
    EXPECT_THAT(log_.records()[1], StartsWith("4 /org/bluez/unit0: failed to start/stop discovery: "));

    call->reply();
    EXPECT_TRUE(waitUntil([this] { return adapter()->discovering(); }));
    EXPECT_TRUE(log_.waitFor("1 Scan started for adapter /org/bluez/unit0"));
    // So the opposite request is not refused as already done.
    onStop(FakePeer::answers());
    EXPECT_TRUE(adapter()->setDiscovering(false));
    EXPECT_FALSE(adapter()->discovering());
}

TEST_F(AdapterDiscovery, ALateErrorLeavesTheStateAlone) {
    startWithAdapter();
    onStart(bluez_->holds());
    DiscoveryRequest request(adapter(), true);
    const auto call = bluez_->takeHeld();
    ASSERT_TRUE(call);
    request.interrupt(Interrupt::Level::HangUp);
    EXPECT_FALSE(request.result());
    call->error("org.bluez.Error.Failed");
    // What is announced next is dispatched after the late answer.
    bluez_.addAdapter(kOtherPath, kOtherAddress);
    bluez_.announce(kOtherPath, {{FakeBluez::kAdapter, {}}});
    ASSERT_TRUE(log_.waitFor("1 Adapter added: /org/bluez/unit1"));
    EXPECT_FALSE(adapter()->discovering());
    EXPECT_EQ(log_.count("1 Scan started for adapter /org/bluez/unit0"), 0u);
}

TEST_F(AdapterDiscovery, ALateAnswerForAnAdapterThatIsGoneMeanwhileHarmsNobody) {
    startWithAdapter();
    onStart(bluez_->holds());
    auto request = std::make_unique<DiscoveryRequest>(adapter(), true);
    const auto call = bluez_->takeHeld();
    ASSERT_TRUE(call);
    request->interrupt(Interrupt::Level::HangUp);
    EXPECT_FALSE(request->result());
    request.reset();
    bluez_.withdraw(kPath, {FakeBluez::kAdapter});
    ASSERT_TRUE(log_.waitFor("1 Adapter removed: /org/bluez/unit0"));
    call->reply();
    EXPECT_TRUE(log_.waitFor("1 Scan started for adapter /org/bluez/unit0"));
}

TEST_F(AdapterDiscovery, AHangUpEndsThePauseBetweenTwoAttempts) {
    startWithAdapter();
    onStart(FakePeer::fails(kNotReady, "Resource Not Ready"));
    DiscoveryRequest request(adapter(), true);
    ASSERT_TRUE(bluez_->waitForCalls(FakeBluez::kAdapter, "StartDiscovery"));
    request.interrupt(Interrupt::Level::HangUp);
    EXPECT_FALSE(request.result());
    EXPECT_EQ(discoveryCalls().size(), 1u);
    ASSERT_EQ(log_.records().size(), 2u);
    EXPECT_THAT(log_.records()[1], StartsWith("4 /org/bluez/unit0: failed to start/stop discovery: "));
}

TEST_F(AdapterDiscovery, ACallThatNobodyHearsIsCarriedOut) {
    startWithAdapter();
    onStart(bluez_->holds());
    DiscoveryRequest request(adapter(), true);
    const auto call = bluez_->takeHeld();
    ASSERT_TRUE(call);
    request.interrupt(Interrupt::Level::Unheard);
    call->reply();
    EXPECT_TRUE(request.result());
    EXPECT_TRUE(adapter()->discovering());
}

TEST_F(AdapterDiscovery, TheLossOfTheBusEndsACallAtOnce) {
    startWithAdapter();
    onStart(bluez_->holds());
    const Ref<Adapter> one = adapter();
    DiscoveryRequest request(one, true);
    ASSERT_TRUE(bluez_->takeHeld());
    bus_.kill();
    EXPECT_TRUE(request.endsWithin(kPatience));
    EXPECT_FALSE(request.result());
    EXPECT_FALSE(one->discovering());
    EXPECT_TRUE(service_->waitForEnd());
}

TEST_F(AdapterDiscovery, AfterTheEndOfTheServiceFailsWithoutAWord) {
    startWithAdapter();
    const Ref<Adapter> one = adapter();
    service_->stop();
    log_.forget();
    EXPECT_FALSE(one->setDiscovering(true));
    EXPECT_TRUE(one->setDiscovering(false)) << "it is in that state already";
    EXPECT_THAT(log_.records(), IsEmpty());
}

}  // namespace
}  // namespace UnitTest
