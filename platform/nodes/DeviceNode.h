#pragma once

#include <cstdint>
#include <memory>

#include "platform/nodes/Service.h"

/// One node: which service serves it and under which id.
class DeviceNode final : public RefCount {
public:
    static Ref<DeviceNode> create();
    static Ref<DeviceNode> create(std::uint64_t type, std::uint64_t service, std::uint64_t a, std::uint64_t b,
                                  std::uint64_t mode, std::uint64_t id);
    /// The node's first operation: type (0x20000), handle of the service, 0, 0, mode (2), node id.
    void configure(std::uint64_t type, std::uint64_t service, std::uint64_t a, std::uint64_t b, std::uint64_t mode,
                   std::uint64_t id);

    std::uint64_t service() const noexcept { return service_; }
    std::uint64_t id() const noexcept { return id_; }

private:
    DeviceNode() = default;
    ~DeviceNode() override = default;
    std::uint64_t service_ = 0;
    std::uint64_t id_ = 0;
};

/// Holds published nodes: releasing it withdraws them.
class DeviceServer final : public RefCount {
public:
    static Ref<DeviceServer> create();

    /// Publishes the node under its path in the tree. What stands in its place and is no socket of ours stays, a name
    /// that cannot be a path leaves the node out; both with a log line. Any thread.
    void enter(const Ref<String>& name, const Ref<DeviceNode>& node);
    /// Withdraws the nodes before the server goes: for an owner whose requests in progress keep it alive. Never waits.
    /// Any thread.
    void withdraw();
    /// Tells every watch of the nodes of a change. Never waits. Any thread.
    void changed(std::uint64_t argument);

private:
    DeviceServer();
    ~DeviceServer() override;
    struct State;
    std::unique_ptr<State> state_;
};

namespace Services::Nodes {

/// Delivers SIGTERM, SIGINT and SIGHUP to the service as a client's call would be: executes `action` on the node
/// `name`, once it is published, or left out since something else stands in its place. Calls on that node are served
/// however many others are in progress. Called once, before any service.
void requestOnTermination(const Ref<String>& name, const Ref<String>& action);

/// Whether a text can be one folder's name in the tree: 1 to 255 bytes, not "." or "..", no slash, no control
/// character.
bool isComponent(std::string_view text) noexcept;

}  // namespace Services::Nodes
