#pragma once

#include <atomic>
#include <cstdint>

#include "platform/host/Ref.h"

class GcProxy;

/// The reference-counted root of every object. Interfaces derive from it virtually, so that a class that implements
/// several of them has one count. Objects are made with `new` (count 0) and handled only through `Ref`. A constructor
/// must not make a Ref to its object (giving that back would destroy it); a destructor may, but must not keep it.
class Object {
public:
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    /// Takes a reference. Any thread.
    virtual void incRef() const noexcept = 0;
    /// Gives a reference back; the last one destroys the object on the calling thread, and from then on no weak
    /// reference can be locked. Any thread.
    virtual void decRef() const noexcept = 0;
    /// The object's weak proxy, made at the first call and the same ever after. Any thread that holds a reference, the
    /// constructor and the destructor included.
    virtual Ref<GcProxy> gcProxy() const = 0;

protected:
    Object() = default;
    virtual ~Object() = default;
};

/// The one implementation of Object's counting.
class RefCount : public virtual Object {
public:
    void incRef() const noexcept override;
    void decRef() const noexcept override;
    Ref<GcProxy> gcProxy() const override;

protected:
    RefCount() = default;
    ~RefCount() override;

private:
    friend class GcProxy;
    bool incRefUnlessGone() const noexcept;

    mutable std::atomic<std::uint32_t> count_{0};
    mutable std::atomic<GcProxy*> proxy_{nullptr};
};

/// The weak side of an object: outlives it, and hands out strong references as long as there is one. A weak reference
/// is the proxy plus the object's pointer; WeakRef below keeps the two together.
class GcProxy final {
public:
    GcProxy(const GcProxy&) = delete;
    GcProxy& operator=(const GcProxy&) = delete;

    void incRef() const noexcept;
    void decRef() const noexcept;

    /// Takes a strong reference to the object, unless its last one is gone or going. True: the caller owns one
    /// reference and gives it back with decRef. Any thread, also while the last strong reference goes.
    bool lockWeakRef() const noexcept;
    /// The names the host uses for taking and giving back a reference to the proxy itself.
    void incWeakRef() const noexcept { incRef(); }
    void decWeakRef() const noexcept { decRef(); }

private:
    friend class RefCount;

    /// Holds the proxy's small lock; for a few instructions only, since others spin meanwhile.
    class Busy {
    public:
        explicit Busy(std::atomic_flag& flag) noexcept;
        ~Busy();
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;

    private:
        std::atomic_flag& flag_;
    };

    explicit GcProxy(const RefCount* object) noexcept : object_(object) {}
    ~GcProxy() = default;
    void clear() noexcept;

    mutable std::atomic<std::uint32_t> count_{0};
    mutable std::atomic_flag busy_{};  // guards object_, and the object's memory while it is looked at
    const RefCount* object_;
};

/// A weak reference to a T; null by default. Copying and locking are safe from any thread, assigning is not.
template <class T>
class WeakRef {
public:
    WeakRef() = default;
    explicit WeakRef(T* object) : proxy_(object ? object->gcProxy() : nullptr), object_(object) {}
    explicit WeakRef(const Ref<T>& object) : WeakRef(object.get()) {}

    /// A strong reference, null when the object is gone.
    Ref<T> lock() const {
        if (!proxy_ || !proxy_->lockWeakRef()) return nullptr;
        return Ref<T>(object_, false);
    }

private:
    Ref<GcProxy> proxy_;
    T* object_ = nullptr;
};
