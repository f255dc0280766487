#ifndef SIMULATOR_PAIRING_H
#define SIMULATOR_PAIRING_H

#include <optional>
#include <string>
#include <vector>

#include "simulator/World.h"

namespace Simulator {

class Device;

/// One bonding attempt: goes through the steps of the device's model, one after the other, and tells the device when it
/// ended, which destroys it. Pair is answered by answer().
class Pairing {
public:
    Pairing(World& world, Device& device, const Call& call, const std::vector<Step>& steps);
    /// Tells the agent when it is being asked something.
    ~Pairing();
    Pairing(const Pairing&) = delete;
    Pairing& operator=(const Pairing&) = delete;

    /// Goes as far as it can; may end the pairing.
    void go();
    void answer(const std::optional<Error>& error) const;
    bool isOf(const std::string& client) const { return client_ == client; }

    /// False when nothing is to be typed now. May end the pairing.
    bool type(const std::string& pinCode);

private:
    /// Each returns whether the next step may follow at once; when not, nothing of the pairing may be touched any more.
    bool take(const Step& step);
    bool askAgent(const std::string& member, const Value::List& arguments, void (Pairing::*answered)(const Answer&));
    void displayed(const Answer& answer);
    void told(const Answer& answer);
    void retry();
    bool wasHasty() const;
    void askForPinCode();
    void fail(const Error& error);
    void cancelAgent() const;

    World& world_;
    Device& device_;
    const Call call_;
    const std::string client_;
    const std::optional<Agent> agent_;
    const std::vector<Step> steps_;
    std::size_t next_ = 0;
    std::size_t displayed_ = 0;  // the step that showed the pincode
    int attempt_ = 1;
    bool isAwaitingTyping_ = false;
    std::string pinCode_;
    std::chrono::steady_clock::time_point shownAt_;
    Timer timer_;
    PendingCall asking_;
};

}  // namespace Simulator

#endif
