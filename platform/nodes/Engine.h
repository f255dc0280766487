#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/Object.h"
#include "platform/nodes/Admission.h"
#include "platform/nodes/Fd.h"
#include "platform/nodes/Mutex.h"

namespace Services::Nodes {

class Engine;
struct Worker;

using Clock = std::chrono::steady_clock;

/// Something with a descriptor that the engine watches.
class Pollable : public RefCount {
public:
    /// Edge-triggered: `events` happened since the last call. May be called on several threads at once.
    virtual void onEvents(std::uint32_t events, Worker& worker) = 0;
    /// The time given to Engine::callAt has passed.
    virtual void onDeadline() = 0;

    /// At the end of the engine, when no other thread touches the object: writes what it can of its last replies. True
    /// when nothing is left; else `fd` tells what to wait for.
    virtual bool finish(int& fd) = 0;
    /// Closes the descriptor.
    virtual void abandon() = 0;

private:
    friend class Engine;
    std::uint64_t id_ = 0;                       // 0: not watched
    std::optional<Clock::time_point> deadline_;  // guarded by Engine::deadlinesLock_
};

/// The threads that serve the nodes of all services of the process.
///
/// One epoll instance, edge-triggered, one event at a time. The thread that takes an event reads, serves and answers:
/// there is no hand-over. Before it does anything that can block it calls ensureFollower(), so that another thread
/// waits for the next event; a thread that finds more waiting than kSpareThreads ends after a while. A thread that
/// waits costs a stack; connections and nodes cost none, and nothing wakes up while nothing happens.
///
/// The kernel wakes the thread that began to wait last, so that one client at a time is served by one warm thread.
///
/// Lives from the first service's start to the end of the last one. An object is watched under an id (slot and
/// generation) rather than its address: an event that was taken just before the object went finds nothing.
class Engine : public std::enable_shared_from_this<Engine> {
public:
    /// The running engine, or a new one, with one more user. Null with a reason when it cannot be started.
    static std::shared_ptr<Engine> acquire(std::string& reason);
    /// One user less. The last one ends the threads, waits at most kFinalFlush for clients to take their last replies,
    /// and closes every connection. No request may be in progress for the last user.
    void release();
    ~Engine();

    /// Watches a descriptor; false, with errno, when the kernel refuses. The engine holds a reference until remove().
    bool add(Pollable& target, int fd, std::uint32_t events);
    void modify(const Pollable& target, int fd, std::uint32_t events) noexcept;
    /// Forgets the object and its deadline. The descriptor is closed by the caller afterwards.
    void remove(Pollable& target, int fd) noexcept;
    /// Has onDeadline() called at `when`, unless it is to be called before that anyway.
    void callAt(Pollable& target, Clock::time_point when);

    /// Makes sure that another thread takes the next event. False when there is none and none can be started.
    bool ensureFollower() { return waiting_.load() > 0 || startThread(); }

    Admission& admission() noexcept { return admission_; }
    /// When there are no more descriptors: takes the next connection with one kept for this, and closes it. False when
    /// that fails, too.
    bool refuseNext(int listener) noexcept;

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

private:
    struct Slot {
        Ref<Pollable> target;
        std::uint32_t generation = 0;
    };

    Engine() = default;
    bool open(std::string& reason);
    void end();
    void finishReplies();
    std::vector<Ref<Pollable>> watched();

    bool startThread();
    static void* threadMain(void* engine);
    void work();
    bool retire() noexcept;
    void joinEnded();

    Ref<Pollable> find(std::uint64_t id);
    void onTimer();
    void armTimer(std::optional<Clock::time_point> when) noexcept;
    void cancelDeadline(Pollable& target) REQUIRES(deadlinesLock_);

    Fd epoll_;
    Fd wake_;
    Fd timer_;
    Admission admission_;
    std::atomic<int> waiting_{0};  // threads that wait for events, or are about to
    std::atomic<bool> ending_{false};

    Mutex slotsLock_;
    std::vector<Slot> slots_ GUARDED_BY(slotsLock_);
    std::vector<std::uint32_t> freeSlots_ GUARDED_BY(slotsLock_);

    Mutex deadlinesLock_;
    std::multimap<Clock::time_point, Pollable*> deadlines_ GUARDED_BY(deadlinesLock_);

    Mutex threadsLock_;
    std::condition_variable_any threadEnded_;
    int alive_ GUARDED_BY(threadsLock_) = 0;
    unsigned named_ GUARDED_BY(threadsLock_) = 0;  // threads that have their names
    std::vector<pthread_t> ended_ GUARDED_BY(threadsLock_);

    Mutex reserveLock_;
    Fd reserve_ GUARDED_BY(reserveLock_);

    int users_ = 0;  // guarded by the lock of acquire() and release()
};

}  // namespace Services::Nodes
