#include "btnode/Node.h"
#include "client/cli/Verbs.h"

namespace btnode::cli {

namespace json = boost::json;

namespace {

/// The NAME at this moment, over a connection of its own: a watch serves nothing else. Empty for a node without one.
Result<std::string> readName(const Tree& tree, const std::string& node, const Limit& limit) {
    Result<Node> connection = Node::connect(tree, node, limit);
    if (!connection) return connection.error();
    Result<std::vector<Value>> values = connection->get("NAME", limit);
    if (!values) return values.error();
    return values->empty() ? std::string() : values->front().text;
}

class Watch {
public:
    Watch(Session& session, Node node) : session_(session), node_(std::move(node)) {}

    ExitCode run() {
        const Limit call = session_.limit(kCallTime);
        if (Result<Done> begun = node_.watch(call); !begun) return session_.fail(begun.error());
        if (!report("watching", 0, call)) return lastCode_;
        const Limit whole = session_.asked.span ? Limit::in(*session_.asked.span, session_.cancellation)
                                                : Limit{Limit::Clock::time_point::max(), session_.cancellation};
        for (std::uint64_t count = 0; count < session_.asked.count.value_or(UINT64_MAX); ++count) {
            Result<std::int64_t> change = node_.nextChange(whole);
            if (!change) return ended(change.error());
            if (!report("changed", *change, session_.limit(kCallTime))) return lastCode_;
        }
        return ExitCode::Ok;
    }

private:
    ExitCode ended(const Error& error) {
        if (error.kind == ErrorKind::TimedOut) return ExitCode::Ok;
        if (error.kind == ErrorKind::Interrupted) return ExitCode::Interrupted;
        if (error.kind == ErrorKind::Gone) {
            if (session_.json()) session_.emit({{"event", "withdrawn"}, {"node", node_.name()}});
            return session_.complain(ExitCode::Gone, node_.name() + " was withdrawn");
        }
        return session_.fail(error);
    }

    /// False when there is nothing more to do, with the code to end with.
    bool report(const char* event, std::int64_t change, const Limit& limit) {
        Result<std::string> name = readName(session_.tree, node_.name(), limit);
        // A node that goes away between a change and the look at it: the watch tells of that itself.
        const bool vanished =
            !name && (name.error().kind == ErrorKind::Gone || name.error().kind == ErrorKind::NotFound ||
                      name.error().kind == ErrorKind::Unreachable);
        if (vanished) return true;
        if (!name) {
            lastCode_ = session_.fail(name.error());
            return false;
        }
        if (session_.json()) {
            json::object object{{"event", event}, {"node", node_.name()}};
            if (std::string_view(event) == "changed") object["change"] = change;
            object["name"] = *name;
            return session_.emit(object);
        }
        if (std::string_view(event) == "watching") {
            session_.say("Watching " + node_.name() + (!name->empty() ? " (" + *name + ")" : "") + "; Ctrl-C ends.");
            return true;
        }
        return session_.print(name->empty() ? "(changed)" : *name);
    }

    Session& session_;
    Node node_;
    ExitCode lastCode_ = ExitCode::Ok;
};

}  // namespace

ExitCode watchVerb(Session& session) {
    const Limit limit = session.limit(kCallTime);
    Result<NodeName> name = session.find(Wanted::Any, limit);
    if (!name) return session.fail(name.error());
    Result<Node> node = Node::connect(session.tree, name->full, limit);
    if (!node) return session.fail(node.error());
    return Watch(session, std::move(*node)).run();
}

}  // namespace btnode::cli
