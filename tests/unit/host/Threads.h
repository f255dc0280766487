#pragma once

#include <functional>
#include <thread>
#include <vector>

namespace HostTest {

/// Threads that are joined at the end of the scope.
class Threads {
public:
    Threads() = default;
    ~Threads() { join(); }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

    void start(std::function<void()> body) { threads_.emplace_back(std::move(body)); }
    void join() {
        for (std::thread& thread : threads_) thread.join();
        threads_.clear();
    }

private:
    std::vector<std::thread> threads_;
};

}  // namespace HostTest
