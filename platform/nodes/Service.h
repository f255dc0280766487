#pragma once

#include <cstdint>

#include "platform/nodes/Interfaces.h"

namespace Services::Nodes {

/// Finds the server behind a node.
class Resolver final : public RefCount {
public:
    static Ref<Resolver> create() { return Ref<Resolver>(new Resolver); }
};

namespace Resolvers {

/// Binds a node server to a resolver.
class Generic final : public RefCount, public Interfaces::Service, public ConMan {
public:
    static Ref<Generic> create(Ref<Interfaces::Generic> server, Ref<CallerID> caller, Ref<Resolver> resolver);

    Interfaces::Generic& generic() override { return *server_; }
    CallerID& caller() override { return *caller_; }

private:
    Generic(Ref<Interfaces::Generic> server, Ref<CallerID> caller, Ref<Resolver> resolver);
    Ref<Interfaces::Generic> server_;
    Ref<CallerID> caller_;
    Ref<Resolver> resolver_;
};

}  // namespace Resolvers
}  // namespace Services::Nodes

namespace Libraries::Service {

/// A running node service: serves the nodes that were made with its handle.
class Base : public virtual Object {
public:
    /// What a DeviceNode needs to belong to this service.
    virtual std::uint64_t handle() const = 0;
    /// Withdraws every node of the service and interrupts the requests being served (Interrupt::Level::End). Returns
    /// at once. Any thread.
    virtual void stop() = 0;
    /// Waits until the service serves no request any more, at most `timeoutMs` milliseconds (4294967295: no limit).
    virtual bool wait(std::uint32_t timeoutMs) = 0;
};

/// Starts node services.
class Single {
public:
    /// Null when the tree's root cannot be used or another process serves the name under this root; the log says which,
    /// with the path. Breaks the reference cycle with the server when the service is stopped.
    static Ref<Base> create(Ref<Interfaces::Service> service, Ref<ConMan> conMan, Ref<String> name);
    /// Takes out of the tree what a killed process left of a service that is to be started later, or not at all. No
    /// effect when another process serves the name.
    static void clearLeftovers(const Ref<String>& name);
};

}  // namespace Libraries::Service
