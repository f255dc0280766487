#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>

#include "platform/host/StrConv.h"
#include "platform/host/SysLog.h"
#include "platform/nodes/Engine.h"
#include "platform/nodes/Worker.h"

namespace Services::Nodes {

namespace {
/// The engine whose thread this is.
thread_local const Engine* ownEngine = nullptr;
}  // namespace

bool Engine::startThread() {
    // Counted as waiting from here on: who asks next must not start another one.
    waiting_.fetch_add(1);
    std::vector<pthread_t> ended;
    {
        const Lock lock(threadsLock_);
        ended.swap(ended_);
        ++alive_;
    }
    for (const pthread_t thread : ended) pthread_join(thread, nullptr);

    auto self = std::make_unique<std::shared_ptr<Engine>>(shared_from_this());
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, Limits::kThreadStackBytes);
    pthread_t thread{};
    const int error = ending_ ? EAGAIN : pthread_create(&thread, &attributes, &Engine::threadMain, self.get());
    pthread_attr_destroy(&attributes);
    if (error == 0) {
        static_cast<void>(self.release());  // the thread's now
        return true;
    }
    waiting_.fetch_sub(1);
    const Lock lock(threadsLock_);
    --alive_;
    threadEnded_.notify_all();
    return false;
}

void* Engine::threadMain(void* engine) {
    const std::unique_ptr<std::shared_ptr<Engine>> holder(static_cast<std::shared_ptr<Engine>*>(engine));
    Engine& self = **holder;
    ownEngine = &self;
    self.work();
    const Lock lock(self.threadsLock_);
    self.ended_.push_back(pthread_self());
    --self.alive_;
    self.threadEnded_.notify_all();
    return nullptr;
}

void Engine::work() {
    const auto worker = std::make_unique<Worker>();
    {
        const Lock lock(threadsLock_);
        SysLog::thdName(String::create("Node" + std::string(StrConv::str(++named_)->view())));
    }
    constexpr int kNoLimit = -1;
    int timeout = static_cast<int>(Limits::kIdleThread.count());
    while (!ending_) {
        epoll_event event{};
        const int count = epoll_wait(epoll_.get(), &event, 1, timeout);
        if (count == 0) {
            if (retire()) return;
            timeout = kNoLimit;  // one of the spare threads: from now on it sleeps until something happens
            continue;
        }
        if (count < 0) continue;  // EINTR: the process was stopped and went on
        waiting_.fetch_sub(1);
        if (event.data.u64 == 0) {
            waiting_.fetch_add(1);
            continue;  // woken for the end
        }
        if (event.data.u64 == 1) {
            onTimer();
        } else if (const Ref<Pollable> target = find(event.data.u64)) {
            target->onEvents(event.events, *worker);
        }
        timeout = static_cast<int>(Limits::kIdleThread.count());
        waiting_.fetch_add(1);
    }
    waiting_.fetch_sub(1);
}

bool Engine::retire() noexcept {
    int waiting = waiting_.load();
    do {
        if (waiting <= Limits::kSpareThreads) return false;
    } while (!waiting_.compare_exchange_weak(waiting, waiting - 1));
    return true;
}

void Engine::end() {
    ending_ = true;
    eventfd_write(wake_.get(), 1);  // never read: wakes every thread that waits, now and later
    const bool ownThread = ownEngine == this;
    const int staying = ownThread ? 1 : 0;
    std::vector<pthread_t> ended;
    {
        const Lock lock(threadsLock_);
        while (alive_ > staying) threadEnded_.wait(threadsLock_);
        ended.swap(ended_);
    }
    for (const pthread_t thread : ended) pthread_join(thread, nullptr);
    if (ownThread) pthread_detach(pthread_self());
    finishReplies();
    for (const Ref<Pollable>& target : watched()) target->abandon();
    // Stopped services may be kept for long.
    epoll_.reset();
    wake_.reset();
    timer_.reset();
    const Lock lock(reserveLock_);
    reserve_.reset();
}

}  // namespace Services::Nodes
