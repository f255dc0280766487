#include <algorithm>
#include <cstdlib>
#include <memory>

#include "devices/Bluez.h"
#include "devices/Device.h"
#include "devices/Log.h"
#include "platform/dbus/Util.h"
#include "platform/host/Atomic.h"
#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"
#include "platform/host/Thd.h"

namespace Services::Bluetooth::Linux {

namespace {

constexpr std::uint32_t kCancelRetryMs = 100;

std::uint64_t number(PairingState state) {
    return static_cast<std::uint64_t>(state);
}

Ref<String> pincodeOf(const NodeValue& parameter) {
    if (parameter.kind == NodeValue::kInteger) return StrConv::str(parameter.integer);
    return parameter.text ? parameter.text : String::create("");
}

}  // namespace

// The states

bool Device::setPairingState(PairingState next) {
    const ServiceHold service = holdService();
    {
        const MonGuard guard(waitersLock_);
        if (!transit(next, service)) return false;
    }
    if (next == PairingState::Paired) {
        // A call to BlueZ, hence outside of the monitor. Nothing but Unpairing can follow meanwhile: a new pairing
        // starts from Unpaired only.
        retrieveProfiles();
        const MonGuard guard(waitersLock_);
        wakeWaiters(service);
    }
    return true;
}

bool Device::transit(PairingState next, const ServiceHold& service) {
    using enum PairingState;
    if (!service) return false;
    switch (next) {
        case Pairing:
            if (!transitFrom({Unpaired}, next)) return false;
            attempt_ = new PairingAttempt;
            listen(service);
            return true;
        case Pincode:
            return transitFrom({Pairing}, next);
        case Unpairing:
            if (!transitFrom({Paired}, next)) return false;
            // On to the next row on purpose: it refuses, since the state is Unpairing now, and so a paired device
            // changes its state, is not removed from BlueZ, and its client is told of a failure.
            [[fallthrough]];
        case Cancelling:
            return transitFrom({Pairing, Pincode}, Cancelling);
        case Paired:
            return transitFrom({Pairing, Pincode, Unpairing}, next);  // the rest is done in setPairingState
        case Unpaired:
            if (!transitFrom({Pairing, Pincode, Unpairing, Cancelling}, next)) return false;
            profiles_.clear();
            wakeWaiters(service);
            return true;
    }
    return true;
}

bool Device::transitFrom(std::initializer_list<PairingState> allowed, PairingState next) {
    return std::any_of(allowed.begin(), allowed.end(), [this, next](PairingState from) {
        return Atomic::cas(pairingState_, number(from), number(next));
    });
}

void Device::listen(const ServiceHold& service) {
    if (service.agent->addListener(path_, Ref<EventListener>(this))) return;
    // The entry is a predecessor's: BlueZ removed the object and announced it again in the middle of a pairing that it
    // has not answered so far. The pincodes that come now are for this one.
    service.agent->removeListener(path_);
    service.agent->addListener(path_, Ref<EventListener>(this));
}

void Device::wakeWaiters(const ServiceHold& service) {
    for (const Ref<Sem>& waiter : waiters_->items) waiter->post();
    if (service) service.agent->removeListener(path_, this);
}

Ref<Sem> Device::enterWaiters() {
    Ref<Sem> waiter = Sem::create(0);
    waiters_->items.push_back(waiter);
    return waiter;
}

void Device::leaveWaiters(const Ref<Sem>& waiter) {
    const MonGuard guard(waitersLock_);
    auto& items = waiters_->items;
    items.erase(std::find(items.begin(), items.end(), waiter));
}

// Pairing

std::pair<std::int32_t, Ref<String>> Device::pair(std::uint32_t timeoutMs) {
    const Ref<PairingAttempt> attempt = beginPairing(timeoutMs);
    if (!attempt || !attempt->await()) return {-1, nullptr};
    switch (attempt->result()) {
        case PairingAttempt::Result::Failed:
            break;
        case PairingAttempt::Result::Pincode:
            LogRecord(1, Log::device) << "Pairing pincode " << attempt->pincode() << " for device " << path_;
            return {1, attempt->pincode()};
        case PairingAttempt::Result::Paired:
            LogRecord(1, Log::device) << "Pairing succeeded for device " << path_;
            return {0, nullptr};
    }
    LogRecord(4, Log::device) << "Pairing failed for device " << path_;
    return {-1, nullptr};
}

Ref<PairingAttempt> Device::beginPairing(std::uint32_t timeoutMs) {
    const ServiceHold service = holdService();
    // One step up to the queued call: nobody can ask BlueZ to cancel this pairing before BlueZ was asked to pair.
    const MonGuard guard(waitersLock_);
    if (!transit(PairingState::Pairing, service)) return nullptr;
    LogRecord(1, Log::device) << "Pair " << path_;
    if (!sendPair(service, timeoutMs)) {
        transit(PairingState::Unpaired, service);
        return nullptr;
    }
    return attempt_;
}

bool Device::sendPair(const ServiceHold& service, std::uint32_t timeoutMs) {
    DBusMessage* const message =
        DBus::dbus_message_new_method_call(Bluez::kService, path_->cstr(), Bluez::kDevice, "Pair");
    if (!message) return false;
    auto call = std::make_unique<PairCall>(PairCall{Ref<Device>(this), attempt_});
    if (!DBus::Util::callMethodAsync(service.connection, timeoutMs, message, &Device::onPairAnswered, call.get(),
                                     &Device::onPairCallFreed)) {
        return false;
    }
    static_cast<void>(call.release());  // the bus library's now
    return true;
}

void Device::onPairAnswered(DBus::DBusPendingCall* pending, void* call) {
    const DBus::MessagePtr reply(DBus::dbus_pending_call_steal_reply(pending));
    auto* const pairCall = static_cast<PairCall*>(call);
    pairCall->device->dispatchThread_.check();
    pairCall->device->pairAnswered(*pairCall->attempt, reply.get());
}

void Device::onPairCallFreed(void* call) {
    const std::unique_ptr<PairCall> pairCall(static_cast<PairCall*>(call));
    if (pairCall->attempt->answered()) return;
    // The connection ended before there was an answer.
    pairCall->device->endAttempt(*pairCall->attempt, PairingState::Unpaired, PairingAttempt::Result::Failed);
}

void Device::pairAnswered(PairingAttempt& attempt, DBusMessage* reply) {
    if (reply && DBus::dbus_message_get_type(reply) != DBUS_MESSAGE_TYPE_ERROR) {
        LogRecord(1, Log::device) << "Device paired: " << path_;
        endAttempt(attempt, PairingState::Paired, PairingAttempt::Result::Paired);
        return;
    }
    if (!reply) {
        LogRecord(3, Log::device) << "Did not receive pair reply for " << path_;
    } else if (const std::string_view name = DBus::dbus_message_get_error_name(reply);
               name == "org.bluez.Error.AuthenticationCanceled") {
        LogRecord(1, Log::device) << "Pair canceled: " << path_;
    } else {
        LogRecord(4, Log::device) << "Pair reply error: " << name;
    }
    endAttempt(attempt, PairingState::Unpaired, PairingAttempt::Result::Failed);
}

void Device::endAttempt(PairingAttempt& attempt, PairingState next, PairingAttempt::Result result) {
    const bool changed = setPairingState(next);
    finishAttempt(attempt, changed, result);
}

void Device::finishAttempt(PairingAttempt& attempt, bool stateChanged, PairingAttempt::Result result) {
    // The next pairing may be under way by now.
    attempt.setAnswered();
    if (!stateChanged) {
        // Paired although it was to be cancelled, or the service is gone: the state stays, but nobody may be left
        // waiting for an answer that was taken.
        const ServiceHold service = holdService();
        const MonGuard guard(waitersLock_);
        wakeWaiters(service);
    }
    attempt.end(result);
}

void Device::handleEvent(const AuthenticationAgent::Event& event) {
    dispatchThread_.check();
    if (event.type != AuthenticationAgent::EVENT_DISPLAY_PINCODE) {
        (LogRecord(3, Log::device) << "Unexpected event ").number(event.type) << " for device " << path_;
        return;
    }
    const ServiceHold service = holdService();
    Ref<PairingAttempt> attempt;
    bool cancelling = false;
    {
        const MonGuard guard(waitersLock_);
        attempt = attempt_;
        if (!attempt->pincode()) {
            if (event.parameters.empty()) std::abort();  // the agent makes no such event
            attempt->setPincode(pincodeOf(event.parameters.front()));
            transit(PairingState::Pincode, service);
            attempt->end(PairingAttempt::Result::Pincode);
            return;
        }
        cancelling = transit(PairingState::Cancelling, service);
    }
    if (cancelling) {
        cancelUntilSent(*attempt);
    } else {
        LogRecord(3, Log::device) << "Got pincode retry, but could not cancel; Pair attempt will fail for" << path_;
    }
}

// Waiting for the end

std::uint32_t Device::waitPaired(std::uint32_t timeoutMs) {
    Ref<Sem> waiter;
    {
        const MonGuard guard(waitersLock_);
        const PairingState state = getPairingState();
        if (state == PairingState::Unpaired) return ResultCode::kNothingToWaitFor;
        if (state == PairingState::Paired) return ResultCode::kSuccess;
        // What would wake it has been.
        const bool over = state == PairingState::Unpairing ? removed_ : attempt_->answered();
        if (over) return ResultCode::kFailure;
        waiter = enterWaiters();
    }
    waiter->wait(timeoutMs);
    leaveWaiters(waiter);
    return getPairingState() == PairingState::Paired ? ResultCode::kSuccess : ResultCode::kFailure;
}

// Cancelling and unpairing

std::uint32_t Device::unpair() {
    if (setPairingState(PairingState::Unpairing)) return removeDevice();
    const ServiceHold service = holdService();
    Ref<PairingAttempt> attempt;
    Ref<Sem> waiter;
    {
        const MonGuard guard(waitersLock_);
        if (!transit(PairingState::Cancelling, service)) return ResultCode::kFailure;
        attempt = attempt_;
        waiter = enterWaiters();
    }
    cancelUntilSent(*attempt);
    const bool woken = waiter->wait();
    leaveWaiters(waiter);
    return woken ? ResultCode::kSuccess : ResultCode::kFailure;
}

void Device::cancelUntilSent(const PairingAttempt& attempt) {
    for (;;) {
        const ServiceHold service = holdService();
        if (!service || cancelPairing(service, attempt)) return;
        // Without a connection there is nobody to tell, and Pair is about to be answered with nothing.
        if (!DBus::dbus_connection_get_is_connected(service.connection)) return;
        if (!Thd::sleep(kCancelRetryMs)) return;
    }
}

bool Device::cancelPairing(const ServiceHold& service, const PairingAttempt& attempt) {
    const DBus::MessagePtr message(
        DBus::dbus_message_new_method_call(Bluez::kService, path_->cstr(), Bluez::kDevice, "CancelPairing"));
    bool sent = false;
    {
        const MonGuard guard(waitersLock_);
        // The pairing ended by itself and the next one has begun, which BlueZ would cancel instead.
        if (attempt_.get() != &attempt) return true;
        sent = message && DBus::dbus_connection_send(service.connection, message.get(), nullptr);
    }
    if (sent) {
        LogRecord(1, Log::device) << "Request cancel pairing for " << path_;
    } else {
        LogRecord(3, Log::device) << "Request cancel pairing failed for " << path_;
    }
    return sent;
}

void Device::removed() {
    const ServiceHold service = holdService();
    const MonGuard guard(waitersLock_);
    removed_ = true;
    // Of a pairing that is under way BlueZ still owes the answer.
    if (getPairingState() == PairingState::Unpairing) transit(PairingState::Unpaired, service);
}

std::uint32_t Device::removeDevice() {
    const ServiceHold service = holdService();
    if (!service) return ResultCode::kSuccess;
    DBusBasicValue value;
    if (!readProperty(service, "Adapter", DBUS_TYPE_OBJECT_PATH, &value)) return ResultCode::kFailure;
    const Ref<String> adapter = String::create(std::string_view(value.str));

    const DBus::MessagePtr call(
        DBus::dbus_message_new_method_call(Bluez::kService, adapter->cstr(), Bluez::kAdapter, "RemoveDevice"));
    if (!call) return ResultCode::kFailure;
    DBusMessageIter arguments;
    DBus::dbus_message_iter_init_append(call.get(), &arguments);
    const char* const path = path_->cstr();
    if (!DBus::dbus_message_iter_append_basic(&arguments, DBUS_TYPE_OBJECT_PATH, &path)) return ResultCode::kFailure;

    DBusError error;
    DBus::dbus_error_init(&error);
    const DBus::MessagePtr reply(
        DBus::dbus_connection_send_with_reply_and_block(service.connection, call.get(), -1, &error));
    if (DBus::dbus_error_is_set(&error)) {
        LogRecord(4, Log::device) << "Failed to unpair/remove device " << path_ << ": " << error.message;
        return ResultCode::kFailure;
    }
    setPairingState(PairingState::Unpaired);
    LogRecord(1, Log::device) << "Unpaired/removed device " << path_;
    return ResultCode::kSuccess;
}

}  // namespace Services::Bluetooth::Linux
