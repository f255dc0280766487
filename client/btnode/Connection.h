#pragma once

#include <string>
#include <string_view>

#include "btnode/Error.h"
#include "btnode/Limit.h"

namespace btnode {

/// A byte stream cut into messages at its NULs; not installed. One thread at a time.
class Connection {
public:
    /// Takes the socket over.
    explicit Connection(int fd) : fd_(fd) {}
    ~Connection();
    Connection(Connection&& other) noexcept;
    Connection& operator=(Connection&& other) noexcept;

    /// Sends it whole; it brings its NUL along.
    Result<Done> send(std::string_view message, const Limit& limit);
    /// The next message without its NUL; Gone when the stream ended before it.
    Result<std::string> receive(const Limit& limit);
    int fd() const { return fd_; }

private:
    int fd_;
    std::string received_;
    std::size_t searched_ = 0;
};

}  // namespace btnode
