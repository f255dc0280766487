#pragma once

#include <mutex>

#include "platform/host/ThreadSafety.h"

/// A mutex for the inside of a class, known to clang's thread-safety analysis, which std::mutex is not. No object, and
/// waiting for it cannot be interrupted: it is held for moments only, never over a callback or a call that may wait.
class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    /// For Interrupt::Waiting.
    std::mutex& native() noexcept { return mutex_; }

private:
    std::mutex mutex_;
};

/// Holds a mutex for its scope; may let go of it meanwhile.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.native()) {}
    ~MutexLock() RELEASE() = default;
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void lock() ACQUIRE() { lock_.lock(); }
    void unlock() RELEASE() { lock_.unlock(); }
    /// To wait on a std::condition_variable.
    std::unique_lock<std::mutex>& native() noexcept { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};
