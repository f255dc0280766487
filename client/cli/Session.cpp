#include "client/cli/Session.h"

#include "client/cli/Json.h"
#include "client/cli/Text.h"

namespace btnode::cli {

Limit Session::limit(std::chrono::milliseconds usual) const {
    return Limit::in(asked.timeout.value_or(usual), cancellation);
}

Result<NodeName> Session::find(Wanted wanted, const Limit& limit) const {
    return resolve(tree, asked.node, wanted, limit);
}

bool Session::emit(const boost::json::object& object) {
    out.line(asked.json == Invocation::Json::Pretty ? prettyJson(object) : shortJson(object));
    return out.flush();
}

bool Session::print(std::string_view line) {
    out.line(sanitised(line));
    return out.flush();
}

void Session::say(std::string_view line) {
    err.line(sanitised(line));
    err.flush();
}

ExitCode Session::complain(ExitCode code, std::string_view line) {
    say("btnode: " + std::string(line));
    return code;
}

ExitCode Session::fail(const Error& error) {
    complain(exitCodeOf(error.kind), error.message);
    if (!error.hint.empty()) say(error.hint);
    return exitCodeOf(error.kind);
}

}  // namespace btnode::cli
