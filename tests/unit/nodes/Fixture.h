#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/host/Sem.h"
#include "platform/nodes/DeviceNode.h"
#include "platform/nodes/Service.h"
#include "tests/unit/support/Waiting.h"

namespace NodesTest {

using UnitTest::kPatience;
using UnitTest::waitUntil;

/// A node server whose answers the tests steer. Attributes: NAME ("node ID"), RAW (the bytes in `raw`).
///
/// Actions, each answering one value of its name:
///   ECHO    the value as it came
///   ID      the caller's id, looked at a moment after it was announced
///   WAIT    waits for `gate`; 0, or 1 when the wait was interrupted
///   SLEEP   sleeps for a minute; 0, or 1 when interrupted
///   PLAIN   waits deaf to everything but the end of the service; 1
///   BUS     waits for `gate` in a bus call; 0, or 2 when it got no slot
///   BIG     a string of as many x as its integer says
/// Everything else: the string "Invalid action".
class TestServer final : public RefCount, public Interfaces::Generic, public CallerID {
public:
    static Ref<TestServer> create() { return Ref<TestServer>(new TestServer); }

    std::uint64_t attributeCount() override { return 2; }
    Ref<String> attributeName(std::uint64_t index) override;
    TArray<NodeValue> getAttribute(Ref<String> name) override;
    TArray<NodeValue> setAttribute(TArray<NodeValue> values) override;
    std::uint64_t actionCount() override { return 1; }
    Ref<String> actionName(std::uint64_t index) override;
    TArray<NodeValue> execute(TArray<NodeValue> values) override;
    void setCallerId(std::uint64_t id) override { callerId_.set(id); }
    std::uint64_t callerId() override { return callerId_.get(); }

    /// Lets `count` waiting requests go on.
    void post(unsigned count = 1);
    /// The names of the actions begun so far, in order.
    std::vector<std::string> begun() const;
    std::size_t begunCount(std::string_view action) const;

    const Ref<Sem> gate = Sem::create(0);
    std::string raw;
    std::atomic<int> waiting{0};      ///< requests that wait in WAIT, SLEEP, PLAIN or BUS
    std::atomic<int> interrupted{0};  ///< waits that were interrupted so far
    std::atomic<int> sets{0};
    std::function<void()> atItsEnd;  ///< called by the destructor
    static std::atomic<int> alive;   ///< servers that are not destroyed

private:
    TestServer() { ++alive; }
    ~TestServer() override {
        if (atItsEnd) atItsEnd();
        --alive;
    }
    NodeValue executeOne(const NodeValue& action);

    CallerIdField callerId_;
    mutable std::mutex mutex_;
    std::vector<std::string> begun_;
};

/// A folder of its own that is removed at the end, contents included.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// A service with a TestServer, stopped at the end.
class TestService {
public:
    explicit TestService(const std::string& name = "TestServer");
    ~TestService();
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;

    /// Whether the service could be started.
    bool running() const { return static_cast<bool>(base_); }
    TestServer& server() { return *server_; }
    Libraries::Service::Base& base() { return *base_; }
    /// Publishes a node in a DeviceServer of its own.
    Ref<DeviceServer> publish(const std::string& node, std::uint64_t id);
    /// Publishes and keeps it.
    void add(const std::string& node, std::uint64_t id) { kept_[node] = publish(node, id); }
    void remove(const std::string& node) { kept_.erase(node); }
    DeviceServer& kept(const std::string& node) { return *kept_.at(node); }
    /// Stops and waits. True when the wait ended within the limit.
    bool stop();
    void forgetServer() { server_.reset(); }

private:
    Ref<TestServer> server_;
    Ref<Libraries::Service::Base> base_;
    std::map<std::string, Ref<DeviceServer>> kept_;
};

/// An empty tree below a root that NODE_ROOT names.
class TreeTest : public ::testing::Test {
protected:
    TreeTest();

    /// Every file and folder below the root but lock files, as paths; folders end with a slash. Sorted.
    std::vector<std::string> contents() const;
    const std::string& root() const { return root_; }
    std::string pathOf(const std::string& name) const { return root_ + "/" + name; }

    TemporaryFolder folder_;
    std::string root_;
};

/// A tree with a running service and one node, "test/node", id 7.
class ServiceTest : public TreeTest {
protected:
    ServiceTest() { service_.add(kNode, 7); }

    static constexpr const char* kNode = "test/node";
    TestServer& server() { return service_.server(); }
    TestService service_;
};

/// Threads of this process.
std::size_t threadCount();
/// Open descriptors of this process.
std::size_t descriptorCount();

}  // namespace NodesTest
