#include "tests/unit/nodes/Fixture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "platform/host/Interrupt.h"
#include "platform/host/RequestContext.h"
#include "platform/host/Thd.h"

namespace NodesTest {

namespace fs = std::filesystem;

std::atomic<int> TestServer::alive{0};

Ref<String> TestServer::attributeName(std::uint64_t index) {
    if (index == 0) return String::create("NAME");
    return index == 1 ? String::create("RAW") : nullptr;
}

TArray<NodeValue> TestServer::getAttribute(Ref<String> name) {
    if (name->equals("NAME")) {
        return {NodeValue::makeString(name, String::create("node " + std::to_string(callerId())))};
    }
    if (name->equals("RAW")) return {NodeValue::makeString(name, String::create(std::string_view(raw)))};
    return {};
}

TArray<NodeValue> TestServer::setAttribute(TArray<NodeValue> values) {
    ++sets;
    return refuseAttributes(std::move(values));
}

Ref<String> TestServer::actionName(std::uint64_t index) {
    return index == 0 ? String::create("ECHO") : nullptr;
}

TArray<NodeValue> TestServer::execute(TArray<NodeValue> values) {
    TArray<NodeValue> results;
    for (const NodeValue& value : values) results.push_back(executeOne(value));
    return results;
}

NodeValue TestServer::executeOne(const NodeValue& action) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        begun_.emplace_back(viewOf(action.name));
    }
    const auto during = [&](auto wait) {
        ++waiting;
        const bool ended = wait();
        if (!ended) ++interrupted;
        --waiting;
        return NodeValue::makeInteger(action.name, ended ? 0 : 1);
    };
    if (action.isNamed("ECHO")) return action;
    if (action.isNamed("WAIT")) return during([&] { return gate->wait(); });
    if (action.isNamed("SLEEP")) return during([] { return Thd::sleep(60'000); });
    if (action.isNamed("PLAIN")) {
        return during([] { return !waitUntil([] { return Interrupt::raised(Interrupt::Level::End); }); });
    }
    if (action.isNamed("BUS")) {
        const RequestContext::BusCall call;
        if (!call.granted()) return NodeValue::makeInteger(action.name, 2);
        return during([&] { return gate->wait(); });
    }
    if (action.isNamed("BIG")) {
        return NodeValue::makeString(action.name, String::create(std::string(action.integer, 'x')));
    }
    if (action.isNamed("ID")) {
        std::this_thread::yield();
        return NodeValue::makeInteger(action.name, callerId());
    }
    return NodeValue::makeString(action.name, String::create("Invalid action"));
}

void TestServer::post(unsigned count) {
    while (count-- > 0) gate->post();
}

std::vector<std::string> TestServer::begun() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return begun_;
}

std::size_t TestServer::begunCount(std::string_view action) const {
    const std::vector<std::string> all = begun();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), action));
}

TemporaryFolder::TemporaryFolder() : path_((fs::temp_directory_path() / "unit-nodes-XXXXXX").string()) {
    if (::mkdtemp(path_.data())) return;
    std::perror("mkdtemp");
    std::abort();
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

TestService::TestService(const std::string& name) : server_(TestServer::create()) {
    const auto resolver =
        Services::Nodes::Resolvers::Generic::create(server_, server_, Services::Nodes::Resolver::create());
    base_ = Libraries::Service::Single::create(resolver, resolver, String::create(name));
}

TestService::~TestService() {
    if (base_) stop();
}

Ref<DeviceServer> TestService::publish(const std::string& node, std::uint64_t id) {
    const Ref<DeviceNode> made = DeviceNode::create(0x20000, base_->handle(), 0, 0, 2, id);
    Ref<DeviceServer> server = DeviceServer::create();
    server->enter(String::create(node), made);
    return server;
}

bool TestService::stop() {
    base_->stop();
    return base_->wait(static_cast<std::uint32_t>(std::chrono::milliseconds(kPatience).count()));
}

TreeTest::TreeTest() : root_(folder_.path() + "/root") {
    ::setenv("NODE_ROOT", root_.c_str(), 1);
}

std::vector<std::string> TreeTest::contents() const {
    std::vector<std::string> all;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(root_, error), end; !error && entry != end; entry.increment(error)) {
        std::string name = entry->path().lexically_relative(root_).string();
        if (name.ends_with(".lock")) continue;
        if (entry->is_directory() && !entry->is_symlink()) name.push_back('/');
        all.push_back(std::move(name));
    }
    std::sort(all.begin(), all.end());
    return all;
}

namespace {
std::size_t entriesOf(const char* folder) {
    std::error_code error;
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder, error), fs::directory_iterator()));
}
}  // namespace

std::size_t threadCount() {
    return entriesOf("/proc/self/task");
}

std::size_t descriptorCount() {
    return entriesOf("/proc/self/fd");
}

}  // namespace NodesTest
