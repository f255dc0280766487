#pragma once

#include <string>

#include "tests/unit/support/Waiting.h"

namespace UnitTest {

/// A client of one node of the test program's tree: raw Varlink messages over its socket.
class NodeClient {
public:
    /// Connects; connected() tells whether that worked.
    explicit NodeClient(const std::string& node);
    ~NodeClient() { hangUp(); }
    NodeClient(const NodeClient&) = delete;
    NodeClient& operator=(const NodeClient&) = delete;

    bool connected() const { return socket_ >= 0; }
    /// Calls a method of com.kelvo.node; `parameters` is the JSON text of an object.
    void send(const std::string& method, const std::string& parameters = "{}");
    /// The next message without its NUL; empty when the connection was closed or nothing came within the limit.
    std::string receive(std::chrono::milliseconds limit = kPatience);
    std::string call(const std::string& method, const std::string& parameters = "{}");
    /// Executes one action without a payload.
    std::string execute(const std::string& action);
    void sendExecute(const std::string& action);
    void hangUp();

private:
    int socket_;
    std::string input_;
};

}  // namespace UnitTest
