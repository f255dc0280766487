#include "platform/nodes/Engine.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/nodes/Worker.h"

// Descriptors, events and deadlines; the threads are in EngineThreads.cpp.

namespace Services::Nodes {

namespace {

// Ids of the engine's own descriptors; those of objects are above, since a slot's generation begins with 1.
constexpr std::uint64_t kWakeId = 0;
constexpr std::uint64_t kTimerId = 1;

std::uint32_t slotOf(std::uint64_t id) noexcept {
    return static_cast<std::uint32_t>(id);
}

std::uint64_t idOf(std::uint32_t slot, std::uint32_t generation) noexcept {
    return (std::uint64_t{generation} << 32) | slot;
}

int openReserve() noexcept {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

Mutex usersLock;
std::weak_ptr<Engine> running GUARDED_BY(usersLock);

}  // namespace

std::shared_ptr<Engine> Engine::acquire(std::string& reason) {
    const Lock lock(usersLock);
    std::shared_ptr<Engine> engine = running.lock();
    if (!engine) {
        engine.reset(new Engine);
        if (!engine->open(reason)) return nullptr;
        running = engine;
    }
    ++engine->users_;
    return engine;
}

void Engine::release() {
    {
        const Lock lock(usersLock);
        if (--users_ > 0) return;
        running.reset();
    }
    end();
}

Engine::~Engine() = default;

bool Engine::open(std::string& reason) {
    epoll_ = Fd(epoll_create1(EPOLL_CLOEXEC));
    wake_ = Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    timer_ = Fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    const auto watch = [this](const Fd& fd, std::uint64_t id) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = id;
        return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd.get(), &event) == 0;
    };
    if (!epoll_ || !wake_ || !timer_ || !watch(wake_, kWakeId) || !watch(timer_, kTimerId)) {
        reason = std::system_category().message(errno);
        return false;
    }
    {
        const Lock lock(reserveLock_);
        reserve_ = Fd(openReserve());
    }
    if (!startThread()) {
        reason = "no thread can be started";
        return false;
    }
    // The follower from the beginning: where no more threads can be had, requests are still served one at a time.
    startThread();
    return true;
}

bool Engine::add(Pollable& target, int fd, std::uint32_t events) {
    std::uint32_t slot = 0;
    {
        const Lock lock(slotsLock_);
        if (freeSlots_.empty()) {
            slot = static_cast<std::uint32_t>(slots_.size());
            slots_.emplace_back();
        } else {
            slot = freeSlots_.back();
            freeSlots_.pop_back();
        }
        Slot& taken = slots_[slot];
        taken.target.reset(&target);
        if (++taken.generation == 0) taken.generation = 1;
        target.id_ = idOf(slot, taken.generation);
    }
    epoll_event event{};
    event.events = events | EPOLLET;
    event.data.u64 = target.id_;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0) return true;
    const int error = errno;
    remove(target, -1);
    errno = error;
    return false;
}

void Engine::modify(const Pollable& target, int fd, std::uint32_t events) noexcept {
    epoll_event event{};
    event.events = events | EPOLLET;
    event.data.u64 = target.id_;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void Engine::remove(Pollable& target, int fd) noexcept {
    if (fd >= 0) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    {
        const Lock lock(deadlinesLock_);
        cancelDeadline(target);
    }
    Ref<Pollable> removed;  // given back after the lock
    const Lock lock(slotsLock_);
    const std::uint32_t slot = slotOf(target.id_);
    removed.swap(slots_[slot].target);
    freeSlots_.push_back(slot);
}

Ref<Pollable> Engine::find(std::uint64_t id) {
    const Lock lock(slotsLock_);
    const Slot& slot = slots_[slotOf(id)];
    const bool current = slot.target && idOf(slotOf(id), slot.generation) == id;
    return current ? slot.target : nullptr;
}

std::vector<Ref<Pollable>> Engine::watched() {
    std::vector<Ref<Pollable>> all;
    const Lock lock(slotsLock_);
    for (const Slot& slot : slots_) {
        if (slot.target) all.push_back(slot.target);
    }
    return all;
}

void Engine::callAt(Pollable& target, Clock::time_point when) {
    const Lock lock(deadlinesLock_);
    if (target.deadline_ && *target.deadline_ <= when) return;
    cancelDeadline(target);
    const auto place = deadlines_.emplace(when, &target);
    target.deadline_ = when;
    if (place == deadlines_.begin()) armTimer(when);
}

void Engine::cancelDeadline(Pollable& target) {
    if (!target.deadline_) return;
    const auto [first, last] = deadlines_.equal_range(*target.deadline_);
    const auto found = std::find_if(first, last, [&](const auto& entry) { return entry.second == &target; });
    if (found != last) deadlines_.erase(found);
    target.deadline_.reset();
    // The timer stays as it is: it finds nothing due and is set anew.
}

void Engine::armTimer(std::optional<Clock::time_point> when) noexcept {
    itimerspec time{};  // all zero: off
    if (when) {
        const auto since = when->time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
        time.it_value.tv_sec = seconds.count();
        time.it_value.tv_nsec = std::chrono::nanoseconds(since - seconds).count();
    }
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &time, nullptr);
}

void Engine::onTimer() {
    std::uint64_t expirations = 0;
    [[maybe_unused]] const ssize_t size = ::read(timer_.get(), &expirations, sizeof expirations);
    std::vector<Ref<Pollable>> due;
    {
        const Lock lock(deadlinesLock_);
        const Clock::time_point now = Clock::now();
        while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
            Pollable* const target = deadlines_.begin()->second;
            deadlines_.erase(deadlines_.begin());
            target->deadline_.reset();
            due.emplace_back(target);
        }
        if (!deadlines_.empty()) armTimer(deadlines_.begin()->first);
    }
    for (const Ref<Pollable>& target : due) target->onDeadline();
}

bool Engine::refuseNext(int listener) noexcept {
    const Lock lock(reserveLock_);
    reserve_.reset();
    Fd refused(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    const bool any = static_cast<bool>(refused);
    if (any) endStream(std::move(refused));
    reserve_ = Fd(openReserve());
    return any;
}

void Engine::finishReplies() {
    const Clock::time_point end = Clock::now() + Limits::kFinalFlush;
    std::vector<Ref<Pollable>> unfinished = watched();
    for (;;) {
        std::vector<pollfd> waits;
        std::erase_if(unfinished, [&](const Ref<Pollable>& target) {
            pollfd wait{-1, POLLOUT, 0};
            if (target->finish(wait.fd)) return true;
            waits.push_back(wait);
            return false;
        });
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (unfinished.empty() || left <= 0) return;
        ::poll(waits.data(), waits.size(), static_cast<int>(left));
    }
}

}  // namespace Services::Nodes
