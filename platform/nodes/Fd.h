#pragma once

#include <unistd.h>

#include <utility>

namespace Services::Nodes {

/// Owns a descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Fd() { reset(); }

    void reset() noexcept {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_ = -1;
};

/// Closes a connected socket so that its client reads the end of the stream, after what was sent to it.
void endStream(Fd socket) noexcept;

}  // namespace Services::Nodes
