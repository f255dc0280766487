#pragma once

#include <atomic>
#include <cstdint>

#include "platform/host/Sem.h"
#include "platform/host/String.h"

namespace Services::Bluetooth::Linux {

/// One pairing, from the request that starts it to BlueZ's answer: what its request waits for and is told.
///
/// Every pairing has one of its own, so that the answer to an earlier pairing, however late its handler comes to its
/// last steps, can neither end the wait of the next one nor be mistaken for its answer.
class PairingAttempt final : public RefCount {
public:
    /// What ended the request's wait.
    enum class Result : std::uint8_t { Failed = 0, Pincode = 2, Paired = 4 };

    PairingAttempt() = default;

    /// Waits, without a limit, for the pincode or the answer. False when the calling thread was interrupted.
    bool await() { return pairSignal_->wait(); }
    /// Only after await().
    Result result() const noexcept { return pairResult_.load(); }
    /// Ends the request's wait. Dispatch thread, or whoever drops the outstanding call with the connection.
    void end(Result result) {
        pairResult_.store(result);
        pairSignal_->post();
    }

    /// Set once, by the dispatch thread, before the wait ends with Result::Pincode; null until then.
    const Ref<String>& pincode() const noexcept { return pincode_; }
    void setPincode(Ref<String> pincode) { pincode_ = std::move(pincode); }

    /// BlueZ's answer was taken, or none can come any more: nothing will move the pairing on.
    bool answered() const noexcept { return answered_.load(); }
    void setAnswered() noexcept { answered_.store(true); }

private:
    ~PairingAttempt() override = default;

    const Ref<Sem> pairSignal_ = Sem::create(0);
    std::atomic<Result> pairResult_{Result::Failed};
    std::atomic<bool> answered_{false};
    Ref<String> pincode_;
};

}  // namespace Services::Bluetooth::Linux
