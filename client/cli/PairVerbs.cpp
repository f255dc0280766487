#include <fmt/format.h>
#include <poll.h>

#include <optional>

#include "btnode/Node.h"
#include "client/cli/Text.h"
#include "client/cli/Verbs.h"
#include "client/cli/Words.h"

namespace btnode::cli {

namespace json = boost::json;

namespace {

// The service keeps the time itself; only when it stays silent for so much longer the client gives up.
constexpr std::chrono::seconds kGrace{2};
constexpr std::chrono::seconds kProgressStep{1};
// A device may call itself something as long as a page.
constexpr std::size_t kTitleWidth = 40;
// Between the end of a pairing and the end of the node of a device that left.
constexpr std::chrono::milliseconds kLeaving{150};

std::chrono::milliseconds leftOf(Limit::Clock::time_point until) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Limit::Clock::now());
    return std::max(left, std::chrono::milliseconds(1));
}

Value withTimeout(const char* action, std::chrono::milliseconds timeout) {
    return Value::list(action, {Value::of("TIMEOUT", std::int64_t{timeout.count()})});
}

/// One device during one of the verbs below.
class Pairing {
public:
    Pairing(Session& session, NodeName node)
        : session_(session),
          node_(std::move(node)),
          time_(session.asked.timeout.value_or(kPairTime)),
          until_(Limit::Clock::now() + time_),
          title_(node_.address) {
        Result<Value> name = read("NAME", session_.limit(kCallTime));
        if (name && !name->text.empty())
            title_ = clipped(sanitised(name->text), kTitleWidth) + " (" + node_.address + ")";
    }

    ExitCode pair() {
        if (!session_.json()) session_.say("Pairing with " + title_ + "; Ctrl-C cancels.");
        Result<Value> answer = ask(withTimeout("CONNECT", time_), "Waiting for the device");
        if (!answer) return failedToAsk(answer.error(), asked_);
        const Value* result = answer->child("RESULT");
        const Value* pincode = answer->child("PINCODE");
        if (result == nullptr || result->kind != Value::Kind::Integer) {
            return end(ExitCode::Failure, "the service's answer to CONNECT has no RESULT");
        }
        if (result->integer == 0) return paired();
        if (result->integer != kResultPincode) return refused(*answer);
        if (pincode != nullptr && !showPincode(pincode->text)) {
            cancelNow();
            return ExitCode::Failure;
        }
        return waitForEnd(true);
    }

    /// `begun`: whether this process began the pairing, and is to cancel it when it is interrupted.
    ExitCode waitForEnd(bool begun) {
        Result<Value> answer = ask(withTimeout("WAIT_CONNECTED", leftOf(until_)), "Waiting until it is paired");
        if (!answer) return failedToAsk(answer.error(), begun);
        if (answer->kind == Value::Kind::Integer && answer->integer == 0) return paired();
        if (answer->kind == Value::Kind::Integer && answer->integer == kResultFailure) {
            if (Limit::Clock::now() < until_) {
                if (vanishes()) return end(ExitCode::Gone, gone().message);
                return end(ExitCode::Rejected,
                           "the pairing was rejected: wrong pincode, refused there, or cancelled (33859)");
            }
            if (begun) cancelNow();
            return timedOut();
        }
        if (answer->kind == Value::Kind::Integer && answer->integer == kResultNothingToWaitFor && begun) {
            return end(ExitCode::Rejected,
                       "the pairing was rejected: it had failed before it could be waited for (33923)");
        }
        const Outcome outcome = outcomeOf(*answer);
        return end(outcome.code == ExitCode::Ok ? ExitCode::Failure : outcome.code, outcome.words);
    }

    ExitCode cancel() {
        const Limit limit = session_.limit(kCallTime);
        Result<Value> status = read("STATUS", limit);
        if (!status) return session_.fail(status.error());
        // DISCONNECT would leave a paired device in a state that it does not leave again.
        if (status->integer == kStatusPaired) {
            return end(ExitCode::Failure, title_ + " is paired; there is no pairing to cancel");
        }
        Result<Value> answer = execute(Value::none("DISCONNECT"), limit);
        if (!answer) return session_.fail(answer.error());
        if (const Outcome outcome = outcomeOf(*answer); outcome.code != ExitCode::Ok) {
            return end(outcome.code, outcome.words);
        }
        if (session_.json()) emit("cancelled");
        if (!session_.json()) session_.say("The pairing with " + title_ + " was cancelled.");
        return ExitCode::Ok;
    }

private:
    Result<Value> execute(Value action, const Limit& limit) {
        Result<Node> node = Node::connect(session_.tree, node_.full, limit);
        if (!node) return node.error();
        Result<std::vector<Value>> results = node->execute({std::move(action)}, limit);
        if (!results) return results.error();
        if (results->empty()) return gone();
        return results->front();
    }

    Result<Value> read(const char* attribute, const Limit& limit) {
        Result<Node> node = Node::connect(session_.tree, node_.full, limit);
        if (!node) return node.error();
        Result<std::vector<Value>> values = node->get(attribute, limit);
        if (!values) return values.error();
        if (values->empty()) return gone();
        return values->front();
    }

    Error gone() const { return {ErrorKind::Gone, title_ + " is gone: BlueZ no longer knows the device"}; }

    /// An error of the connection, with the device that it is about.
    Error ofDevice(const Error& error) const {
        if (error.kind != ErrorKind::Gone) return error;
        return {ErrorKind::Gone, title_ + " is gone: " + error.message};
    }

    /// Executes an action that takes its time, with a line on the terminal that tells that it does. The connection
    /// stays open until the next question, for a cancel is to find the request in progress.
    Result<Value> ask(const Value& action, const std::string& what) {
        const Limit limit{until_ + kGrace, session_.cancellation};
        if (Result<Done> watched = watchNode(limit); !watched) return watched.error();
        Result<Node> connected = Node::connect(session_.tree, node_.full, limit);
        if (!connected) return connected.error();
        connection_.emplace(std::move(*connected));
        asked_ = true;
        if (Result<Done> asked = connection_->askToExecute({action}, limit); !asked) return asked.error();
        Ready how = Ready::TimedOut;
        while (how == Ready::TimedOut && !limit.passed()) {
            progress(what);
            const Limit step{std::min(Limit::Clock::now() + kProgressStep, limit.until), session_.cancellation};
            how = waitForAny({connection_->fd(), watch_->fd()}, POLLIN, step);
            if (how == Ready::Yes &&
                waitFor(connection_->fd(), POLLIN, Limit::in(std::chrono::milliseconds(0))) != Ready::Yes) {
                // A change of its name is of no interest; a request in progress would outlive the node's withdrawal.
                if (const auto change = watch_->nextChange(limit); !change) return ofDevice(change.error());
                how = Ready::TimedOut;
            }
        }
        endProgress();
        Result<std::vector<Value>> results = connection_->takeAnswer(limit);
        if (!results) return ofDevice(results.error());
        if (results->empty()) return gone();
        return results->front();
    }

    /// Whether the device is gone, or goes now: one that leaves while it is pairing ends the pairing first.
    bool vanishes() {
        const Limit limit = Limit::in(kLeaving, session_.cancellation);
        while (waitFor(watch_->fd(), POLLIN, limit) == Ready::Yes) {
            if (!watch_->nextChange(limit)) return true;
        }
        return false;
    }

    /// So that the end of the node is noticed at once.
    Result<Done> watchNode(const Limit& limit) {
        if (watch_) return Done{};
        Result<Node> connected = Node::connect(session_.tree, node_.full, limit);
        if (!connected) return connected.error();
        if (Result<Done> watched = connected->watch(limit); !watched) return watched;
        watch_.emplace(std::move(*connected));
        return Done{};
    }

    void progress(const std::string& what) {
        if (session_.json() || !session_.err.canRedraw()) return;
        const auto left = std::chrono::ceil<std::chrono::seconds>(leftOf(until_));
        const std::string line = fmt::format("{}: {} s left", what, left.count());
        session_.err.raw("\r" + clipped(line, session_.err.size().columns - 1) + "\x1b[K");
        session_.err.flush();
        progressShown_ = true;
    }

    void endProgress() {
        if (!progressShown_) return;
        session_.err.raw("\r\x1b[K");
        session_.err.flush();
        progressShown_ = false;
    }

    /// False when nobody can read it.
    bool showPincode(const std::string& pincode) {
        if (session_.json()) {
            json::object object = event("pincode");
            object["pincode"] = pincode;
            return session_.emit(object);
        }
        session_.say("Type this pincode on " + title_ + ", then press Enter there:");
        session_.out.line(session_.out.bold(sanitised(pincode)));
        return session_.out.flush();
    }

    ExitCode paired() {
        if (session_.json()) emit("paired");
        if (!session_.json()) session_.say("Paired with " + title_ + ".");
        return ExitCode::Ok;
    }

    ExitCode timedOut() {
        return end(ExitCode::TimedOut, fmt::format("{} was not paired within {} s", title_, seconds()));
    }

    double seconds() const { return std::chrono::duration<double>(time_).count(); }

    /// A CONNECT that did not lead to a pairing: says which of the reasons it was.
    ExitCode refused(const Value& answer) {
        if (Limit::Clock::now() >= until_) return timedOut();
        const Outcome outcome = outcomeOf(answer);
        if (outcome.code != ExitCode::Refused) return end(outcome.code, outcome.words);
        const Result<Value> status = read("STATUS", session_.limit(kCallTime));
        if (!status && status.error().kind != ErrorKind::TimedOut) return end(ExitCode::Gone, status.error().message);
        if (status && status->integer == kStatusPaired) {
            return end(ExitCode::Refused, title_ + " is paired already (4294967295)");
        }
        if (status && status->integer != kStatusUnpaired) {
            return end(ExitCode::Refused, "a pairing with " + title_ + " is under way already (4294967295)");
        }
        return end(ExitCode::Refused,
                   title_ + " refused, or is out of reach (4294967295); the service's log has BlueZ's error");
    }

    ExitCode failedToAsk(const Error& error, bool begun) {
        endProgress();
        if (error.kind == ErrorKind::Interrupted || error.kind == ErrorKind::TimedOut) {
            if (begun) cancelNow();
            if (error.kind == ErrorKind::TimedOut) return timedOut();
            if (session_.json()) emit("interrupted");
            return ExitCode::Interrupted;
        }
        return end(exitCodeOf(error.kind), error.message);
    }

    /// Cancels the pairing that this process began, over a second connection: the first one waits for its answer.
    void cancelNow() {
        const Limit limit = Limit::in(kCleanUpTime);
        const Result<Value> status = read("STATUS", limit);
        if (status && status->integer == kStatusPaired) {
            note("The pairing with " + title_ + " had succeeded before it could be cancelled.");
            return;
        }
        const Result<Value> answer = execute(Value::none("DISCONNECT"), limit);
        if (!answer) {
            note("btnode: the pairing could not be cancelled: " + answer.error().message);
        } else if (outcomeOf(*answer).code == ExitCode::Ok) {
            note("The pairing with " + title_ + " was cancelled.");
        } else {
            note("No pairing with " + title_ + " was left to cancel.");
        }
    }

    void note(const std::string& line) { session_.say(line); }

    ExitCode end(ExitCode code, const std::string& why) {
        if (session_.json()) {
            json::object object = event("failed");
            object["exit_code"] = static_cast<int>(code);
            object["reason"] = why;
            session_.emit(object);
        }
        return session_.complain(code, why);
    }

    json::object event(const char* name) const {
        return {{"event", name}, {"node", node_.full}, {"address", node_.address}};
    }
    void emit(const char* name) { session_.emit(event(name)); }

    Session& session_;
    const NodeName node_;
    const std::chrono::milliseconds time_;
    const Limit::Clock::time_point until_;
    /// NAME and address, for messages.
    std::string title_;
    std::optional<Node> connection_;
    std::optional<Node> watch_;
    /// Whether the service may have got a question that takes its time: before that there is nothing to cancel.
    bool asked_ = false;
    bool progressShown_ = false;
};

}  // namespace

ExitCode pairVerb(Session& session) {
    Result<NodeName> node = session.find(Wanted::Device, session.limit(kCallTime));
    if (!node) return session.fail(node.error());
    return Pairing(session, std::move(*node)).pair();
}

ExitCode waitVerb(Session& session) {
    Result<NodeName> node = session.find(Wanted::Device, session.limit(kCallTime));
    if (!node) return session.fail(node.error());
    return Pairing(session, std::move(*node)).waitForEnd(false);
}

ExitCode cancelVerb(Session& session) {
    Result<NodeName> node = session.find(Wanted::Device, session.limit(kCallTime));
    if (!node) return session.fail(node.error());
    return Pairing(session, std::move(*node)).cancel();
}

}  // namespace btnode::cli
