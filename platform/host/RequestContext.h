#pragma once

#include <atomic>
#include <cstdint>

/// What the layers below a request must know of it, bound to the thread that serves it; the node framework binds one,
/// the bus library asks it. Threads without one (the main thread) have no limit.
class RequestContext {
public:
    /// Blocking bus calls made on behalf of requests at the same time, over all requests.
    static constexpr std::uint32_t kMaxBusCalls = 64;

    RequestContext() noexcept;
    ~RequestContext();
    RequestContext(const RequestContext&) = delete;
    RequestContext& operator=(const RequestContext&) = delete;

    static RequestContext* current() noexcept;
    /// A blocking bus call found no slot: whatever the operation answers, the client is told Busy.
    bool busy() const noexcept { return busy_; }

    /// Holds a slot for one blocking bus call of the calling thread's request.
    class BusCall {
    public:
        BusCall() noexcept;
        ~BusCall();
        BusCall(const BusCall&) = delete;
        BusCall& operator=(const BusCall&) = delete;
        /// False: all slots are taken, or the request has been refused one before; the call must not be made.
        bool granted() const noexcept { return granted_; }

    private:
        RequestContext* context_;
        bool granted_;
    };

private:
    RequestContext* previous_;
    bool busy_ = false;
};
