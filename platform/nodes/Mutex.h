#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/host/ThreadSafety.h"

namespace Services::Nodes {

/// std::mutex with clang's annotations. For the framework's own short sections, in which nothing blocks: unlike a Mon
/// it cannot be interrupted and costs one atomic operation.
class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    std::mutex& native() noexcept { return mutex_; }

private:
    std::mutex mutex_;
};

/// Holds a Mutex to the end of the scope.
class SCOPED_CAPABILITY Lock {
public:
    explicit Lock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Lock() RELEASE() { mutex_.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    Mutex& mutex_;
};

}  // namespace Services::Nodes
