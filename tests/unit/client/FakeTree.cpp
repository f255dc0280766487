#include "tests/unit/client/FakeTree.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace btnode::test {

namespace {

constexpr std::chrono::seconds kPatience{60};

std::string text(const json::value& value) {
    return std::string(value.as_string().data(), value.as_string().size());
}

void sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

void sendMessage(int fd, const json::object& message) {
    std::string bytes = json::serialize(message);
    bytes.push_back('\0');
    sendAll(fd, bytes);
}

}  // namespace

void Gate::open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
}

bool Gate::wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return open_ || ended_; });
    return open_;
}

void Gate::end() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

json::object integerValue(const std::string& name, std::int64_t integer) {
    return {{"name", name}, {"kind", "integer"}, {"integer", integer}};
}

json::object stringValue(const std::string& name, const std::string& content) {
    return {{"name", name}, {"kind", "string"}, {"text", content}};
}

json::object listValue(const std::string& name, json::array children) {
    json::object value{{"name", name}, {"kind", "list"}};
    value["children"] = std::move(children);
    return value;
}

void FakeNode::set(const std::string& attribute, json::object value) {
    const std::lock_guard lock(mutex_);
    for (auto& [name, current] : attributes_) {
        if (name == attribute) {
            current = std::move(value);
            return;
        }
    }
    attributes_.emplace_back(attribute, std::move(value));
}

void FakeNode::setAction(const std::string& name, Action action) {
    const std::lock_guard lock(mutex_);
    std::erase_if(actions_, [&](const auto& each) { return each.first == name; });
    actions_.emplace_back(name, std::move(action));
}

void FakeNode::setActions(std::vector<std::pair<std::string, Action>> actions) {
    const std::lock_guard lock(mutex_);
    actions_ = std::move(actions);
}

void FakeNode::answerAlways(const std::string& message) {
    const std::lock_guard lock(mutex_);
    always_ = message;
}

std::vector<std::string> FakeNode::executed() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const json::object& each : executed_) names.push_back(text(each.at("name")));
    return names;
}

bool FakeNode::waitForAction(const std::string& name, json::object* action) const {
    std::unique_lock lock(mutex_);
    const auto find = [&] {
        return std::find_if(executed_.rbegin(), executed_.rend(),
                            [&](const json::object& each) { return text(each.at("name")) == name; });
    };
    if (!changed_.wait_for(lock, kPatience, [&] { return find() != executed_.rend(); })) return false;
    if (action != nullptr) *action = *find();
    return true;
}

bool FakeNode::waitForWatcher() const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return !watchers_.empty(); });
}

void FakeNode::forget() {
    const std::lock_guard lock(mutex_);
    executed_.clear();
}

void FakeNode::tellWithdrawn() {
    const std::lock_guard lock(mutex_);
    for (const int fd : watchers_) {
        sendMessage(fd, {{"error", "com.kelvo.node.Withdrawn"}, {"parameters", json::object()}});
    }
}

void FakeNode::change(std::int64_t argument) {
    const std::lock_guard lock(mutex_);
    json::object parameters{{"change", argument}};
    for (const int fd : watchers_) sendMessage(fd, {{"parameters", parameters}, {"continues", true}});
}

json::object FakeNode::execute(const json::object& action, bool& close) {
    const std::string name = text(action.at("name"));
    Action run;
    {
        const std::lock_guard lock(mutex_);
        executed_.push_back(action);
        changed_.notify_all();
        for (const auto& [known, function] : actions_) {
            if (known == name) run = function;
        }
    }
    if (!run) return stringValue(name, "Invalid action");
    json::object result = run(action);
    close = result.empty();
    return result;
}

void FakeNode::answer(int fd, const json::object& call) {
    const std::string method = text(call.at("method"));
    {
        const std::lock_guard lock(mutex_);
        if (!always_.empty()) {
            sendAll(fd, always_ + '\0');
            return;
        }
    }
    const json::object* parameters = call.contains("parameters") ? &call.at("parameters").as_object() : nullptr;
    json::object reply;
    if (method == "com.kelvo.node.Describe") {
        const std::lock_guard lock(mutex_);
        json::array attributeNames;
        json::array actionNames;
        for (const auto& each : attributes_) attributeNames.emplace_back(each.first);
        for (const auto& each : actions_) actionNames.emplace_back(each.first);
        reply = {{"node", "fake"}, {"server", server_}, {"attributes", attributeNames}, {"actions", actionNames}};
    } else if (method == "com.kelvo.node.Get") {
        const std::string attribute = text(parameters->at("attribute"));
        const std::lock_guard lock(mutex_);
        json::array values;
        for (const auto& [name, value] : attributes_) {
            if (name == attribute && !objectGone) values.push_back(value);
        }
        reply["values"] = std::move(values);
    } else if (method == "com.kelvo.node.Execute") {
        json::array values;
        for (const json::value& each : parameters->at("values").as_array()) {
            bool close = false;
            json::object result = execute(each.as_object(), close);
            if (close) {
                ::shutdown(fd, SHUT_RDWR);
                return;
            }
            if (!objectGone) values.push_back(std::move(result));
        }
        reply["values"] = std::move(values);
    } else if (method == "com.kelvo.node.Watch") {
        // Sent under the lock: no change may overtake the confirmation.
        const std::lock_guard lock(mutex_);
        if (!watchUnconfirmed) sendMessage(fd, {{"parameters", json::object()}, {"continues", true}});
        watchers_.push_back(fd);
        changed_.notify_all();
        return;
    } else {
        sendMessage(fd, {{"error", "org.varlink.service.MethodNotFound"}, {"parameters", {{"method", method}}}});
        return;
    }
    sendMessage(fd, {{"parameters", reply}});
}

FakeTree::FakeTree() {
    std::string pattern = (std::filesystem::temp_directory_path() / "btnode-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    ::chmod(pattern.c_str(), 0755);
    root_ = pattern;
}

FakeTree::~FakeTree() {
    gate_.end();
    for (auto& each : served_) end(*each.second);
    std::filesystem::remove_all(root_);
}

FakeNode& FakeTree::publish(const std::string& name, std::shared_ptr<FakeNode> node) {
    const std::string path = pathOf(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    auto served = std::make_unique<Served>();
    served->node = std::move(node);
    served->listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // Made beside the tree and moved into it: no client sees a socket that refuses it.
    const std::string fresh = root_ + "/.fresh";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    fresh.copy(address.sun_path, sizeof address.sun_path - 1);
    const void* raw = &address;
    if (::bind(served->listener, static_cast<const sockaddr*>(raw), sizeof address) != 0 ||
        ::listen(served->listener, 128) != 0 || ::rename(fresh.c_str(), path.c_str()) != 0) {
        throw std::runtime_error("cannot publish " + name + ": " + std::strerror(errno));
    }
    served->acceptor = std::thread([&here = *served] { accept(here); });
    auto& slot = served_[name];
    slot = std::move(served);
    return *slot->node;
}

void FakeTree::accept(Served& served) {
    for (;;) {
        const int fd = ::accept4(served.listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        const std::lock_guard lock(served.mutex);
        served.connections.push_back(fd);
        served.threads.emplace_back([&served, fd] { serve(served, fd); });
    }
}

void FakeTree::serve(Served& served, int fd) {
    FakeNode& node = *served.node;
    std::string received;
    char chunk[4096];
    for (;;) {
        const ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
        if (count <= 0) break;
        received.append(chunk, static_cast<std::size_t>(count));
        for (std::size_t end = received.find('\0'); end != std::string::npos; end = received.find('\0')) {
            const std::string message = received.substr(0, end);
            received.erase(0, end + 1);
            if (!node.silent) node.answer(fd, json::parse(message).as_object());
        }
    }
    // The descriptor itself is closed at the end of the node, so that its number is not taken by another connection.
    ::shutdown(fd, SHUT_RDWR);
    const std::lock_guard lock(node.mutex_);
    std::erase(node.watchers_, fd);
}

void FakeTree::end(Served& served) {
    ::shutdown(served.listener, SHUT_RDWR);
    served.acceptor.join();
    ::close(served.listener);
    for (const int fd : served.connections) ::shutdown(fd, SHUT_RDWR);
    for (std::thread& each : served.threads) each.join();
    for (const int fd : served.connections) ::close(fd);
}

void FakeTree::withdraw(const std::string& name) {
    const auto found = served_.find(name);
    std::filesystem::remove(pathOf(name));
    for (std::filesystem::path folder = std::filesystem::path(pathOf(name)).parent_path();
         folder.string().size() > root_.size(); folder = folder.parent_path()) {
        std::error_code failure;
        if (!std::filesystem::remove(folder, failure)) break;
    }
    found->second->node->tellWithdrawn();
    end(*found->second);
    served_.erase(found);
}

void FakeTree::kill() {
    for (auto& each : served_) end(*each.second);
    served_.clear();
}

void FakeTree::publishService() {
    auto service = std::make_shared<FakeNode>("LinuxBTService");
    service->setActions({{"STOP", [](const json::object&) { return integerValue("STOP", 0); }}});
    publish("bluetooth/service", service);
    auto master = std::make_shared<FakeNode>("LinuxBTService");
    for (const char* name : {"INQUIRY_START", "INQUIRY_STOP"}) {
        master->setAction(name, [name](const json::object&) { return integerValue(name, 0); });
    }
    publish("bluetooth/master", master);
}

FakeNode& FakeTree::publishAdapter(const std::string& address, const std::string& name) {
    auto adapter = std::make_shared<FakeNode>("LinuxBTAdapters");
    adapter->set("ADDRESS", stringValue("ADDRESS", address));
    adapter->set("NAME", stringValue("NAME", name));
    for (const char* action : {"INQUIRY_START", "INQUIRY_STOP"}) {
        adapter->setAction(action, [action](const json::object&) { return integerValue(action, 0); });
    }
    return publish(adapterNode(address), adapter);
}

FakeNode& FakeTree::publishDevice(const std::string& address, const std::string& name, std::int64_t status,
                                  std::int64_t major, std::int64_t minor) {
    auto device = std::make_shared<FakeNode>("LinuxBTDevices");
    device->set("ADDRESS", stringValue("ADDRESS", address));
    device->set("NAME", stringValue("NAME", name));
    device->set("STATUS", integerValue("STATUS", status));
    device->set("MAJOR_SERVICE_CLASSES", integerValue("MAJOR_SERVICE_CLASSES", 0));
    device->set("MAJOR_DEVICE_CLASS", integerValue("MAJOR_DEVICE_CLASS", major));
    device->set("MINOR_DEVICE_CLASS", integerValue("MINOR_DEVICE_CLASS", minor));
    device->set("PROFILES", listValue("PROFILES", {}));
    device->set("ACTIVE_PROFILES", listValue("ACTIVE_PROFILES", {}));
    return publish(deviceNode(address), device);
}

std::string deviceNode(const std::string& address) {
    return "bluetooth/devices/" + address + "/device";
}
std::string adapterNode(const std::string& address) {
    return "bluetooth/adapters/" + address + "/adapter";
}

}  // namespace btnode::test
