#pragma once

#include <sys/types.h>

#include <atomic>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace btnode::test {

namespace json = boost::json;

/// Lets a scripted node wait until the test says so, or until the tree ends.
class Gate {
public:
    void open();
    /// False when the tree ended first.
    bool wait();
    void end();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    bool ended_ = false;
};

json::object integerValue(const std::string& name, std::int64_t integer);
json::object stringValue(const std::string& name, const std::string& text);
json::object listValue(const std::string& name, json::array children);

/// One scripted node: what it answers, and what it was asked.
class FakeNode {
public:
    /// Gives the result of one action, or an empty object to close the connection instead of answering.
    using Action = std::function<json::object(const json::object& action)>;

    explicit FakeNode(std::string server) : server_(std::move(server)) {}

    /// Get and Execute give no values.
    std::atomic<bool> objectGone = false;
    /// Takes calls and never answers.
    std::atomic<bool> silent = false;
    /// Takes a Watch and does not confirm it.
    std::atomic<bool> watchUnconfirmed = false;

    /// Adds the attribute or replaces it.
    void set(const std::string& attribute, json::object value);
    void setAction(const std::string& name, Action action);
    /// In place of all that were there.
    void setActions(std::vector<std::pair<std::string, Action>> actions);
    /// Answers each message with this one.
    void answerAlways(const std::string& message);
    /// The names of the executed actions so far.
    std::vector<std::string> executed() const;
    /// The last execution of an action; false when there was none within a minute.
    bool waitForAction(const std::string& name, json::object* action = nullptr) const;
    bool waitForWatcher() const;
    /// Of what was executed so far.
    void forget();
    /// Tells the watchers that the node was withdrawn, as the tree does when it is.
    void tellWithdrawn();
    /// Tells the watchers.
    void change(std::int64_t argument = 0);

private:
    friend class FakeTree;

    void answer(int fd, const json::object& call);
    json::object execute(const json::object& action, bool& close);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    const std::string server_;
    std::vector<std::pair<std::string, json::object>> attributes_;
    std::vector<std::pair<std::string, Action>> actions_;
    std::string always_;
    std::vector<json::object> executed_;
    std::vector<int> watchers_;
};

/// A tree of node sockets in a folder of its own, served by this process: one thread a connection.
class FakeTree {
public:
    FakeTree();
    ~FakeTree();
    FakeTree(const FakeTree&) = delete;

    const std::string& root() const { return root_; }
    std::string pathOf(const std::string& name) const { return root_ + "/" + name; }

    FakeNode& publish(const std::string& name, std::shared_ptr<FakeNode> node);
    /// As the service does: the socket goes first, then watchers are told, then connections end.
    void withdraw(const std::string& name);
    /// Leaves the sockets behind, as a killed service does.
    void kill();

    /// The control nodes, with actions that succeed.
    void publishService();
    FakeNode& publishAdapter(const std::string& address, const std::string& name);
    FakeNode& publishDevice(const std::string& address, const std::string& name, std::int64_t status = 1,
                            std::int64_t major = 5, std::int64_t minor = 16);
    FakeNode& node(const std::string& name) { return *served_.at(name)->node; }
    Gate& gate() { return gate_; }

private:
    struct Served {
        std::shared_ptr<FakeNode> node;
        int listener = -1;
        std::thread acceptor;
        std::mutex mutex;
        std::vector<int> connections;
        std::vector<std::thread> threads;
    };

    static void accept(Served& served);
    static void serve(Served& served, int fd);
    void end(Served& served);

    std::string root_;
    Gate gate_;
    std::map<std::string, std::unique_ptr<Served>> served_;
};

std::string deviceNode(const std::string& address);
std::string adapterNode(const std::string& address);

}  // namespace btnode::test
