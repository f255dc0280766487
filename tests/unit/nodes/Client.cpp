#include "tests/unit/nodes/Client.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace NodesTest {

std::string callText(std::string_view method, std::string_view parameters, std::string_view more) {
    std::string text = "{\"method\":\"" + std::string(method) + "\"";
    if (!parameters.empty()) text.append(",\"parameters\":").append(parameters);
    return text.append(more) + "}";
}

std::string nodeCall(std::string_view method, std::string_view parameters, std::string_view more) {
    return callText("com.kelvo.node." + std::string(method), parameters, more);
}

std::string getCall(std::string_view attribute) {
    return nodeCall("Get", "{\"attribute\":\"" + std::string(attribute) + "\"}");
}

std::string executeCall(std::initializer_list<std::string_view> actions, std::string_view more) {
    std::string values;
    for (const std::string_view action : actions) {
        values.append(values.empty() ? "" : ",").append("{\"name\":\"").append(action).append("\",\"kind\":\"none\"}");
    }
    return nodeCall("Execute", "{\"values\":[" + values + "]}", more);
}

std::string errorText(std::string_view name, std::string_view parameter, std::string_view value) {
    std::string text = "{\"error\":\"" + std::string(name) + "\",\"parameters\":{";
    if (!parameter.empty()) text.append("\"").append(parameter).append("\":\"").append(value).append("\"");
    return text + "}}";
}

std::string invalidParameter(std::string_view name) {
    return errorText("org.varlink.service.InvalidParameter", "parameter", name);
}

std::string stringReply(std::string_view name, std::string_view text) {
    return "{\"parameters\":{\"values\":[{\"name\":\"" + std::string(name) + "\",\"kind\":\"string\",\"text\":\"" +
           std::string(text) + "\"}]}}";
}

std::string integerReply(std::string_view name, std::uint64_t value) {
    return "{\"parameters\":{\"values\":[{\"name\":\"" + std::string(name) +
           "\",\"kind\":\"integer\",\"integer\":" + std::to_string(value) + "}]}}";
}

Client::Client(const std::string& node) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    // Through a descriptor, as roots may be longer than an address.
    const std::string path = std::string(std::getenv("NODE_ROOT")) + "/" + node;
    const Services::Nodes::Fd file(::open(path.c_str(), O_PATH | O_CLOEXEC));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d", file.get());
    connected_ = file && ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void Client::sendBytes(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::size_t Client::offer(std::string_view bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t size =
            ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (size < 0) break;
        sent += static_cast<std::size_t>(size);
    }
    return sent;
}

void Client::send(std::string_view message) {
    sendBytes(std::string(message) + '\0');
}

Client::Input Client::readMore(std::chrono::steady_clock::time_point end) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd readable{socket_.get(), POLLIN, 0};
        const int ready = ::poll(&readable, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return Input::Nothing;
        char bytes[64 * 1024];
        const ssize_t size = ::recv(socket_.get(), bytes, sizeof bytes, 0);
        if (size < 0) return Input::Nothing;  // a reset is no orderly end
        if (size == 0) return Input::Ended;
        input_.append(bytes, static_cast<std::size_t>(size));
        return Input::Got;
    }
}

std::optional<std::string> Client::receive(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (std::size_t seen = 0;;) {
        const std::size_t nul = input_.find('\0', seen);
        if (nul != std::string::npos) {
            std::string message = input_.substr(0, nul);
            input_.erase(0, nul + 1);
            return message;
        }
        seen = input_.size();
        if (readMore(end) != Input::Got) return {};
    }
}

std::string Client::call(std::string_view message) {
    send(message);
    return receive().value_or("closed");
}

bool Client::isClosed(std::chrono::milliseconds limit) {
    return input_.empty() && readMore(std::chrono::steady_clock::now() + limit) == Input::Ended;
}

bool Client::hasInput() const {
    pollfd readable{socket_.get(), POLLIN, 0};
    return !input_.empty() || ::poll(&readable, 1, 0) > 0;
}

bool Client::isAllRead() const {
    int unread = 0;
    return ::ioctl(socket_.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
}

void Client::halfClose() {
    ::shutdown(socket_.get(), SHUT_WR);
}

}  // namespace NodesTest
