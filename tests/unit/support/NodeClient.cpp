#include "tests/unit/support/NodeClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "tests/unit/support/NodeRoot.h"

namespace UnitTest {

NodeClient::NodeClient(const std::string& node) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = nodeRoot() + "/" + node;
    if (path.size() < sizeof address.sun_path) std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const auto* generic = static_cast<const sockaddr*>(static_cast<const void*>(&address));
    if (::connect(socket_, generic, sizeof address) != 0) hangUp();
}

void NodeClient::send(const std::string& method, const std::string& parameters) {
    std::string message = R"({"method":"com.kelvo.node.)" + method + R"(","parameters":)" + parameters + "}";
    message.push_back('\0');
    for (std::size_t sent = 0; sent < message.size();) {
        const ssize_t count = ::send(socket_, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
        if (count < 0) return;
        sent += static_cast<std::size_t>(count);
    }
}

std::string NodeClient::receive(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (const std::size_t nul = input_.find('\0'); nul != std::string::npos) {
            std::string message = input_.substr(0, nul);
            input_.erase(0, nul + 1);
            return message;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd readable{socket_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) return {};
        char bytes[4096];
        const ssize_t count = ::recv(socket_, bytes, sizeof bytes, 0);
        if (count <= 0) return {};
        input_.append(bytes, static_cast<std::size_t>(count));
    }
}

std::string NodeClient::call(const std::string& method, const std::string& parameters) {
    send(method, parameters);
    return receive();
}

void NodeClient::sendExecute(const std::string& action) {
    send("Execute", R"({"values":[{"name":")" + action + R"(","kind":"none"}]})");
}

std::string NodeClient::execute(const std::string& action) {
    sendExecute(action);
    return receive();
}

void NodeClient::hangUp() {
    if (socket_ >= 0) ::close(socket_);
    socket_ = -1;
}

}  // namespace UnitTest
