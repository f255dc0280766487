#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <dbus/dbus.h>

#include "tests/unit/support/BusValue.h"
#include "tests/unit/support/Waiting.h"

namespace UnitTest {

/// A scripted peer on the bus: owns a name, records the method calls it gets and answers as the test says. It has a
/// connection and a thread of its own; the test calls it from any thread. A call that no handler and no property
/// answers gets UnknownMethod (and is recorded all the same).
class FakePeer {
public:
    using Build = std::function<void(DBusMessageIter*)>;
    using Message = std::shared_ptr<DBusMessage>;

    struct Call {
        std::string path, interface, member;
        std::string arguments;  ///< see argumentsAsText
        std::string sender;     ///< unique name
        /// "path interface.member(arguments)"
        std::string text() const { return path + ' ' + interface + '.' + member + '(' + arguments + ')'; }
    };

    /// One call to be answered, now or later, from any thread, once, or never. Copies stand for the same call.
    class Request {
    public:
        const Call& call() const { return *call_; }
        void reply(const Build& build = {}) const;
        void error(const std::string& name, const std::string& text = "scripted") const;

    private:
        friend class FakePeer;
        Request(FakePeer* peer, Message message);
        FakePeer* peer_;
        Message message_;
        std::shared_ptr<const Call> call_;
    };
    /// Runs on the peer's thread. Answers the request, keeps a copy to answer later, or leaves it unanswered.
    using Handler = std::function<void(const Request&)>;

    /// Connects and takes the name. Ends the test program with a message when that fails.
    explicit FakePeer(const std::string& address, const std::string& name = "org.bluez");
    /// Leaves the bus; unanswered requests get the bus's NoReply.
    ~FakePeer();
    FakePeer(const FakePeer&) = delete;
    FakePeer& operator=(const FakePeer&) = delete;

    std::string uniqueName() const { return uniqueName_; }

    /// Sets (replaces) the handler of a method, for every object path.
    void on(const std::string& interface, const std::string& member, Handler handler);
    /// Handlers: an answer, an error by name, silence.
    static Handler answers(Build build = {});
    static Handler fails(std::string name, std::string text = "scripted");
    static Handler silent() {
        return [](const Request&) {};
    }
    /// A handler that keeps its requests; takeHeld() hands them out in order. Null when none comes within the limit.
    Handler holds();
    std::unique_ptr<Request> takeHeld(std::chrono::milliseconds limit = kPatience);

    /// What Properties.Get answers; a property that is not set gets InvalidArgs, a handler for Get goes first.
    void setProperty(const std::string& path, const std::string& interface, const std::string& name, BusValue value);
    void removeProperty(const std::string& path, const std::string& interface, const std::string& name);

    /// Every method call so far, in order.
    std::vector<Call> calls() const;
    std::size_t count(const std::string& interface, const std::string& member) const;
    void forgetCalls();
    /// Waits until that many calls of the method came in since the start or forgetCalls.
    bool waitForCalls(const std::string& interface, const std::string& member, std::size_t number = 1,
                      std::chrono::milliseconds limit = kPatience) const;

    /// Sends a signal; with a destination to that connection alone.
    void emit(const std::string& path, const std::string& interface, const std::string& member, const Build& build = {},
              const std::string& destination = {});
    /// Calls a method and waits for the answer, an error included; null when none comes within the limit.
    Message call(const std::string& destination, const std::string& path, const std::string& interface,
                 const std::string& member, const Build& build = {}, std::chrono::milliseconds limit = kPatience);
    /// As call(), with a message of the test's own.
    Message call(Message message, std::chrono::milliseconds limit = kPatience);
    /// Sends any message as it is.
    void send(Message message);
    /// Returns when everything that was given to this peer before is written to the bus.
    void flush();

private:
    using Job = std::function<void()>;

    void run();
    void post(Job job);
    void takeMessages();
    void take(Message message);
    void serve(Message message);
    bool serveProperty(const Request& request);

    ::DBusConnection* connection_;
    std::string uniqueName_;
    int wake_;
    std::map<dbus_uint32_t, std::shared_ptr<std::promise<Message>>> waiting_;  // the peer's thread's alone

    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::vector<Job> jobs_;
    bool ends_ = false;
    std::map<std::string, Handler> handlers_;
    std::map<std::string, BusValue> properties_;
    std::vector<Call> calls_;
    std::deque<Request> held_;
    std::thread thread_;
};

}  // namespace UnitTest
