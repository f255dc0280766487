#pragma once

#include <utility>

#include "platform/host/Mutex.h"
#include "platform/host/Ref.h"

namespace Services::Bluetooth::Linux {

/// A reference that some threads replace while others read it: each is one step, and what was replaced lives on as long
/// as a reader holds it. Any thread; never waits for anything but another of its own steps.
template <class T>
class SharedRef {
public:
    explicit SharedRef(Ref<T> value = nullptr) : value_(std::move(value)) {}
    SharedRef(const SharedRef&) = delete;
    SharedRef& operator=(const SharedRef&) = delete;

    Ref<T> load() const {
        const MutexLock guard(mutex_);
        return value_;
    }

    void store(Ref<T> value) {
        const MutexLock guard(mutex_);
        value_.swap(value);  // the old one goes with the argument, after the mutex is free
    }

    /// Replaces the value unless it is no longer the expected one; true when it did.
    bool replace(const Ref<T>& expected, Ref<T> value) {
        const MutexLock guard(mutex_);
        if (value_ != expected) return false;
        value_.swap(value);
        return true;
    }

private:
    mutable Mutex mutex_;
    Ref<T> value_ GUARDED_BY(mutex_);
};

}  // namespace Services::Bluetooth::Linux
