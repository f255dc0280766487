#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/nodes/Fd.h"
#include "tests/unit/support/Waiting.h"

namespace NodesTest {

using UnitTest::kPatience;
using UnitTest::waitUntil;

/// The text of a call. `parameters` is the JSON text of an object, none when empty; `more` further fields, each with a
/// comma in front.
std::string callText(std::string_view method, std::string_view parameters = {}, std::string_view more = {});
/// The same for a method of com.kelvo.node.
std::string nodeCall(std::string_view method, std::string_view parameters = {}, std::string_view more = {});
std::string getCall(std::string_view attribute);
/// Executes actions without payload, given by their names.
std::string executeCall(std::initializer_list<std::string_view> actions, std::string_view more = {});

/// The text of an error reply with at most one parameter.
std::string errorText(std::string_view name, std::string_view parameter = {}, std::string_view value = {});
std::string invalidParameter(std::string_view name);
/// The text of a reply with one string value, and with one integer value.
std::string stringReply(std::string_view name, std::string_view text);
std::string integerReply(std::string_view name, std::uint64_t value);

/// A client of a node, byte by byte: knows nothing of the messages but the NUL between them.
class Client {
public:
    /// Connects to a node of the tree that NODE_ROOT names.
    explicit Client(const std::string& node);

    bool connected() const { return connected_; }
    int socket() const { return socket_.get(); }
    /// Sends all, waiting as long as the server does not read.
    void sendBytes(std::string_view bytes);
    /// Sends as much as the kernel takes without waiting; how much that was.
    std::size_t offer(std::string_view bytes);
    /// Sends a message and its NUL.
    void send(std::string_view message);
    /// The next message; nothing when the connection ends or none comes within the limit.
    std::optional<std::string> receive(std::chrono::milliseconds limit = kPatience);
    /// The answer to a message; "closed" when there is none.
    std::string call(std::string_view message);
    /// Whether the server closes the connection, orderly and without a further message.
    bool isClosed(std::chrono::milliseconds limit = kPatience);
    /// Whether a message, or the end, is there already.
    bool hasInput() const;
    /// Whether the server has read everything that was sent so far.
    bool isAllRead() const;

    /// Sends no more.
    void halfClose();
    void hangUp() { socket_.reset(); }

private:
    enum class Input { Got, Ended, Nothing };
    Input readMore(std::chrono::steady_clock::time_point end);

    Services::Nodes::Fd socket_;
    bool connected_ = false;
    std::string input_;
};

}  // namespace NodesTest
