#include "simulator/Pairing.h"

#include <fmt/format.h>

#include "simulator/Device.h"
#include "simulator/ValueText.h"

namespace Simulator {

namespace {

constexpr const char* kAgent1 = "org.bluez.Agent1";
constexpr int kPinCodes = 3;  // of its own that bluetoothd tries with a keyboard
constexpr const char* kNoReply = "org.freedesktop.DBus.Error.NoReply";

}  // namespace

Pairing::Pairing(World& world, Device& device, const Call& call, const std::vector<Step>& steps)
    : world_(world),
      device_(device),
      call_(call),
      client_(call.sender()),
      agent_(world.agents.agentFor(client_)),
      steps_(steps) {}

Pairing::~Pairing() {
    if (asking_.isWaiting()) cancelAgent();
}

void Pairing::cancelAgent() const {
    world_.narrator.event(fmt::format("-> agent {} Cancel()", agent_->owner));
    world_.bus.send(world_.bus.newCall(agent_->owner, agent_->path, kAgent1, "Cancel"));
}

void Pairing::go() {
    while (next_ < steps_.size()) {
        if (!take(steps_[next_++])) return;
    }
    device_.pairingEnded(std::nullopt);
}

bool Pairing::take(const Step& step) {
    switch (step.kind) {
        case Step::Kind::Wait:
            timer_ = world_.loop.after(step.delay, [this] { go(); });
            return false;
        case Step::Kind::DisplayPinCode:
            displayed_ = next_ - 1;
            pinCode_ = world_.newPinCode();
            shownAt_ = std::chrono::steady_clock::now();
            device_.showPinCode(pinCode_);
            return askAgent("DisplayPinCode", {Value::objectPath(device_.path()), Value::string(pinCode_)},
                            &Pairing::displayed);
        case Step::Kind::RequestPinCode:
            return askAgent("RequestPinCode", {Value::objectPath(device_.path())}, &Pairing::told);
        case Step::Kind::AwaitTyping:
            isAwaitingTyping_ = true;
            if (world_.tuning.typeAfter > milliseconds(0)) {
                timer_ = world_.loop.after(world_.tuning.typeAfter, [this] { type(pinCode_); });
            }
            return false;
        case Step::Kind::Fail:
            fail(step.error);
            return false;
        case Step::Kind::Vanish:
            device_.vanish(false);
            return false;
        case Step::Kind::VanishSilently:
            device_.vanish(true);
            return false;
        case Step::Kind::Silence:
            return false;
    }
    return false;
}

bool Pairing::askAgent(const std::string& member, const Value::List& arguments,
                       void (Pairing::*answered)(const Answer&)) {
    MessagePtr message;
    if (agent_) message = world_.bus.newCall(agent_->owner, agent_->path, kAgent1, member);
    for (const auto& argument : arguments) {
        if (message && argument.appendTo(message.get()) < 0) message.reset();
    }
    if (message) {
        world_.narrator.event(fmt::format("-> agent {} {}({})", agent_->owner, member, toText(arguments)));
        asking_ = world_.bus.call(message, world_.tuning.agentTimeout,
                                  [this, answered](const Answer& answer) { (this->*answered)(answer); });
    }
    if (!asking_.isWaiting()) fail(Errors::kAuthenticationFailed);
    return false;
}

void Pairing::displayed(const Answer& answer) {
    asking_ = {};
    // An agent that answers with an error, or leaves the bus, changes nothing: bluetoothd goes on with its pincode. One
    // that does not answer in time is told so.
    if (answer.errorName == kNoReply) cancelAgent();
    go();
}

void Pairing::told(const Answer& answer) {
    asking_ = {};
    const bool isTold = answer.errorName.empty() && answer.results.size() == 1 && answer.results[0].isText();
    if (!isTold || answer.results[0].text().empty()) return fail(Errors::kAuthenticationFailed);
    pinCode_ = answer.results[0].text();
    device_.showPinCode(pinCode_);
    go();
}

bool Pairing::type(const std::string& pinCode) {
    if (!isAwaitingTyping_) return false;
    isAwaitingTyping_ = false;
    timer_.stop();
    const bool isRight = pinCode == pinCode_;
    world_.narrator.event(
        fmt::format("{} is typed at {}, which is {}", pinCode, device_.path(), isRight ? "right" : "wrong"));
    if (isRight) {
        go();
    } else if (world_.tuning.retryAfter == milliseconds(0) || attempt_ > kPinCodes) {
        fail(Errors::kAuthenticationFailed);
    } else if (wasHasty()) {
        // The fixed code is tried once, as the second attempt, and is wrong as well.
        timer_ = world_.loop.after(world_.tuning.retryAfter * (attempt_ == 1 ? 2 : 1), [this] { askForPinCode(); });
    } else {
        timer_ = world_.loop.after(world_.tuning.retryAfter, [this] { retry(); });
    }
    return true;
}

bool Pairing::wasHasty() const {
    return std::chrono::steady_clock::now() - shownAt_ < world_.tuning.hastyWithin;
}

void Pairing::retry() {
    if (attempt_ == kPinCodes) return askForPinCode();
    ++attempt_;
    next_ = displayed_;
    go();
}

void Pairing::askForPinCode() {
    attempt_ = kPinCodes + 1;
    next_ = displayed_ + 1;
    askAgent("RequestPinCode", {Value::objectPath(device_.path())}, &Pairing::told);
}

void Pairing::fail(const Error& error) {
    device_.pairingEnded(error);
}

void Pairing::answer(const std::optional<Error>& error) const {
    if (error) {
        world_.narrator.event(fmt::format("{} Pair ends with {}", device_.path(), error->name));
        call_.fail(*error);
    } else {
        world_.narrator.event(fmt::format("{} is paired", device_.path()));
        call_.reply();
    }
}

}  // namespace Simulator
