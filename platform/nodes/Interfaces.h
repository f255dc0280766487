#pragma once

#include <atomic>
#include <cstdint>

#include "platform/nodes/NodeValue.h"

namespace Interfaces {

/// What a node server answers for its nodes. Every operation is called on a request thread right after CallerID's set
/// on the same thread; any number of requests may be in progress at once. Nothing is thrown.
class Generic : public virtual Object {
public:
    virtual std::uint64_t attributeCount() = 0;
    /// A new string; null for an index out of range.
    virtual Ref<String> attributeName(std::uint64_t index) = 0;
    /// Values named after the attribute; empty for an unknown name or an object that is gone.
    virtual TArray<NodeValue> getAttribute(Ref<String> name) = 0;
    virtual TArray<NodeValue> setAttribute(TArray<NodeValue> values) = 0;
    virtual std::uint64_t actionCount() = 0;
    virtual Ref<String> actionName(std::uint64_t index) = 0;
    /// One result per handled value, in order.
    virtual TArray<NodeValue> execute(TArray<NodeValue> values) = 0;
};

/// What the framework runs as a service: it finds a node's server by the node.
class Service : public virtual Object {
public:
    virtual Generic& generic() = 0;
};

}  // namespace Interfaces

/// Tells a server which of its nodes the operation that follows on the same thread is for.
class CallerID : public virtual Object {
public:
    virtual void setCallerId(std::uint64_t id) = 0;
    virtual std::uint64_t callerId() = 0;
};

/// Connects requests with the server they are for: announces the caller before each operation.
class ConMan : public virtual Object {
public:
    virtual CallerID& caller() = 0;
};

/// The one implementation of CallerID's field: a store and a load. Requests of one server run on several threads at
/// once, so each thread reads back what it stored itself; a thread that never stored reads the last value of all.
class CallerIdField {
public:
    void set(std::uint64_t id) noexcept;
    std::uint64_t get() const noexcept;

private:
    static std::uint64_t nextInstance() noexcept;

    // Not the address: another field may have had it, and the thread its value.
    const std::uint64_t instance_ = nextInstance();
    std::atomic<std::uint64_t> last_{0};
};

/// Shared by all servers, none of which has writable attributes: discards the values and answers nothing.
inline TArray<NodeValue> refuseAttributes(TArray<NodeValue>) {
    return {};
}
