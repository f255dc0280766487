#include "platform/host/Thd.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/host/Interrupt.h"

bool Thd::sleep(std::uint32_t ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    std::mutex mutex;
    std::condition_variable wake;
    const Interrupt::Waiting waiting(mutex, wake);
    std::unique_lock<std::mutex> lock(mutex);
    return !wake.wait_until(lock, deadline, [] { return Interrupt::raised(Interrupt::Level::HangUp); });
}
