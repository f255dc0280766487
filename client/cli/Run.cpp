#include "client/cli/Run.h"

#include <cerrno>
#include <cstring>
#include <variant>

#include "client/cli/CommandLine.h"
#include "client/cli/Verbs.h"

namespace btnode::cli {

namespace {

struct Verb {
    std::string_view name;
    ExitCode (*run)(Session&);
};

constexpr Verb kVerbs[] = {
    {"list", listVerb},   {"show", showVerb},     {"get", getVerb},           {"do", doVerb},
    {"watch", watchVerb}, {"scan", scanVerb},     {"stop", stopVerb},         {"pair", pairVerb},
    {"wait", waitVerb},   {"cancel", cancelVerb}, {"profiles", profilesVerb}, {"activate", activateVerb},
};

ExitCode perform(const Invocation& invocation, Output& out, Output& err, const Cancellation* cancellation) {
    Result<std::string> root = invocation.root ? Result<std::string>(*invocation.root) : Tree::defaultRoot();
    Session session{invocation, Tree(root ? *root : std::string()), out, err, cancellation};
    if (!root) return session.fail(root.error());
    for (const Verb& each : kVerbs) {
        if (each.name == invocation.verb) return each.run(session);
    }
    return session.complain(ExitCode::Usage, "unknown verb '" + invocation.verb + "'");
}

}  // namespace

int run(const std::vector<std::string>& arguments, int outFd, int errFd, const Cancellation* cancellation) {
    Output out(outFd, cancellation);
    Output err(errFd, cancellation);
    const auto parsed = parseCommandLine(arguments);
    ExitCode code = ExitCode::Ok;
    if (const Answer* answer = std::get_if<Answer>(&parsed)) {
        out.raw(answer->out);
        err.raw(answer->err);
        code = answer->code;
    } else {
        code = perform(std::get<Invocation>(parsed), out, err, cancellation);
    }
    err.flush();
    if (!out.flush()) {
        if (out.failure() == EPIPE) return kReaderGone;
        if (out.failure() != EINTR) {
            err.line(std::string("btnode: cannot write the output: ") + std::strerror(out.failure()));
            err.flush();
            if (code == ExitCode::Ok) code = ExitCode::Failure;
        }
    }
    return static_cast<int>(code);
}

}  // namespace btnode::cli
