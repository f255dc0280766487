#include "platform/host/Object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>

#include "tests/unit/host/Threads.h"

namespace {

class Counted : public RefCount {
public:
    explicit Counted(std::atomic<int>& destroyed) : destroyed_(destroyed) {}
    ~Counted() override { ++destroyed_; }
    int touch() { return ++touched_; }

private:
    std::atomic<int>& destroyed_;
    std::atomic<int> touched_{0};
};

class Left : public virtual Object {
public:
    virtual int left() = 0;
};

class Right : public virtual Object {
public:
    virtual int right() = 0;
};

class Both final : public RefCount, public Left, public Right {
public:
    explicit Both(std::atomic<int>& destroyed) : destroyed_(destroyed) {}
    ~Both() override { ++destroyed_; }
    int left() override { return 1; }
    int right() override { return 2; }

private:
    std::atomic<int>& destroyed_;
};

/// Refers to itself while it is destroyed, and looks whether its weak reference can still be locked.
class SelfReferring final : public RefCount {
public:
    SelfReferring(std::atomic<int>& destroyed, bool& lockedInDestructor)
        : destroyed_(destroyed), lockedInDestructor_(lockedInDestructor) {}
    ~SelfReferring() override {
        ++destroyed_;
        for (int round = 0; round < 2; ++round) Ref<SelfReferring>(this).reset();
        lockedInDestructor_ = WeakRef<SelfReferring>(this).lock() != nullptr;
    }

private:
    std::atomic<int>& destroyed_;
    bool& lockedInDestructor_;
};

TEST(Object, LivesUntilItsLastReferenceGoes) {
    std::atomic<int> destroyed = 0;
    Ref<Counted> first(new Counted(destroyed));
    Ref<Counted> second = first;
    first.reset();
    EXPECT_EQ(destroyed, 0);
    second.reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(Object, HasOneCountBehindSeveralInterfaces) {
    std::atomic<int> destroyed = 0;
    const Ref<Both> both(new Both(destroyed));
    Ref<Left> left = both;
    Ref<Right> right = both;
    Ref<Object> object = left;
    EXPECT_EQ(left->left() + right->right(), 3);
    EXPECT_EQ(left->gcProxy(), right->gcProxy());
    const_cast<Ref<Both>&>(both).reset();
    left.reset();
    right.reset();
    EXPECT_EQ(destroyed, 0);
    object.reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(Object, HasOneProxyForEver) {
    std::atomic<int> destroyed = 0;
    const Ref<Counted> object(new Counted(destroyed));
    EXPECT_EQ(object->gcProxy(), object->gcProxy());
}

TEST(Object, IsNotBroughtBackByAReferenceTakenInItsDestructor) {
    std::atomic<int> destroyed = 0;
    bool lockedInDestructor = true;
    Ref<SelfReferring> object(new SelfReferring(destroyed, lockedInDestructor));
    object.reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(lockedInDestructor);

    Ref<SelfReferring> withProxy(new SelfReferring(destroyed, lockedInDestructor));
    const WeakRef<SelfReferring> weak(withProxy);
    lockedInDestructor = true;
    withProxy.reset();
    EXPECT_EQ(destroyed, 2);
    EXPECT_FALSE(lockedInDestructor);
    EXPECT_EQ(weak.lock(), nullptr);
}

TEST(GcProxy, LocksWhileTheObjectLivesAndNotAfterwards) {
    std::atomic<int> destroyed = 0;
    Ref<Counted> object(new Counted(destroyed));
    const Ref<GcProxy> proxy = object->gcProxy();
    ASSERT_TRUE(proxy->lockWeakRef());
    Counted* const locked = object.get();
    object.reset();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(locked->touch(), 1);
    locked->decRef();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(proxy->lockWeakRef());
}

TEST(GcProxy, DoesNotLockAnObjectThatNobodyRefersToYet) {
    std::atomic<int> destroyed = 0;
    auto* const raw = new Counted(destroyed);
    const Ref<GcProxy> proxy = raw->gcProxy();
    EXPECT_FALSE(proxy->lockWeakRef());
    Ref<Counted> object(raw);
    EXPECT_TRUE(proxy->lockWeakRef());
    raw->decRef();
}

TEST(GcProxy, OutlivesAnObjectOnTheStack) {
    std::atomic<int> destroyed = 0;
    Ref<GcProxy> proxy;
    {
        Counted object(destroyed);
        proxy = object.gcProxy();
    }
    EXPECT_FALSE(proxy->lockWeakRef());
}

TEST(WeakRef, OfNothingIsNull) {
    EXPECT_EQ(WeakRef<Counted>().lock(), nullptr);
    EXPECT_EQ(WeakRef<Counted>(Ref<Counted>()).lock(), nullptr);
}

TEST(WeakRef, LocksFromOtherThreadsWhileTheLastReferenceGoes) {
    constexpr int kRounds = 500;
    constexpr int kLockers = 3;
    constexpr int kAttempts = 20;
    std::atomic<int> destroyed = 0;
    std::atomic<int> wrong = 0;
    Ref<Counted> object;
    WeakRef<Counted> weak;
    std::barrier step(kLockers + 1);

    HostTest::Threads threads;
    for (int locker = 0; locker < kLockers; ++locker) {
        threads.start([&] {
            for (int round = 0; round < kRounds; ++round) {
                step.arrive_and_wait();
                for (int attempt = 0; attempt < kAttempts; ++attempt) {
                    const Ref<Counted> locked = weak.lock();
                    if (locked && locked->touch() < 1) ++wrong;
                }
                step.arrive_and_wait();
                if (weak.lock()) ++wrong;  // gone is gone
                step.arrive_and_wait();
            }
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        object = new Counted(destroyed);
        weak = WeakRef<Counted>(object);
        step.arrive_and_wait();
        object.reset();
        step.arrive_and_wait();
        EXPECT_EQ(destroyed, round + 1);
        step.arrive_and_wait();
    }
    threads.join();
    EXPECT_EQ(wrong, 0);
}

TEST(WeakRef, IsTheSameWhicheverThreadAsksForTheProxyFirst) {
    constexpr int kRounds = 300;
    std::atomic<int> destroyed = 0;
    Ref<Counted> object;
    Ref<GcProxy> seen[2];
    std::barrier step(3);

    HostTest::Threads threads;
    for (Ref<GcProxy>& proxy : seen) {
        threads.start([&] {
            for (int round = 0; round < kRounds; ++round) {
                step.arrive_and_wait();
                proxy = object->gcProxy();
                step.arrive_and_wait();
            }
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        object = new Counted(destroyed);
        step.arrive_and_wait();
        step.arrive_and_wait();
        EXPECT_EQ(seen[0], seen[1]);
        EXPECT_TRUE(seen[0]->lockWeakRef());
        object->decRef();
    }
}

TEST(Object, IsDestroyedOnceWhenThreadsShareIt) {
    constexpr int kRounds = 300;
    std::atomic<int> destroyed = 0;
    Ref<Counted> object;
    std::barrier step(4);

    HostTest::Threads threads;
    for (int sharer = 0; sharer < 3; ++sharer) {
        threads.start([&] {
            for (int round = 0; round < kRounds; ++round) {
                step.arrive_and_wait();
                Ref<Counted> mine = object;
                step.arrive_and_wait();  // everybody has one
                mine->touch();
                mine.reset();
                step.arrive_and_wait();
            }
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        object = new Counted(destroyed);
        step.arrive_and_wait();
        step.arrive_and_wait();
        object.reset();
        step.arrive_and_wait();
        EXPECT_EQ(destroyed, round + 1);
    }
}

}  // namespace
