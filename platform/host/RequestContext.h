#pragma once

#include <atomic>
#include <cstdint>

/// What the layers below a request must know of it, bound to the thread that serves it; the node framework binds one,
/// the bus library asks it. Threads without one (the main thread) have no limit.
class RequestContext {
public:
    /// Bus calls made on behalf of requests at the same time, over all requests; those included that a request has left
    /// and that are not answered. The bus itself allows 128 unanswered calls (dbus-daemon's limit of replies on the
    /// system bus) and refuses every further one, whoever makes it.
    static constexpr std::uint32_t kMaxBusCalls = 64;

    RequestContext() noexcept;
    ~RequestContext();
    RequestContext(const RequestContext&) = delete;
    RequestContext& operator=(const RequestContext&) = delete;

    static RequestContext* current() noexcept;
    /// A blocking bus call found no slot: whatever the operation answers, the client is told Busy.
    bool busy() const noexcept { return busy_; }
    /// A blocking bus call found the bus gone: whatever the operation answers, the client is told nothing.
    bool lost() const noexcept { return lost_; }
    void setLost() noexcept { lost_ = true; }

    /// Holds a slot for one bus call of the calling thread's request, and moves on with the call when the request
    /// leaves it. Any thread gives it back.
    class BusCall {
    public:
        BusCall() noexcept;
        BusCall(BusCall&& other) noexcept;
        ~BusCall();
        BusCall(const BusCall&) = delete;
        BusCall& operator=(const BusCall&) = delete;
        /// False: all slots are taken, or the request has been refused one before; the call must not be made.
        bool granted() const noexcept { return granted_; }

    private:
        bool granted_ = true;
        bool held_ = false;  ///< a slot is to be given back
    };

private:
    RequestContext* previous_;
    bool busy_ = false;
    bool lost_ = false;
};
