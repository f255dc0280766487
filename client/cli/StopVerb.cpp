#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "btnode/Descriptor.h"
#include "btnode/Node.h"
#include "client/cli/Verbs.h"
#include "client/cli/Words.h"

namespace btnode::cli {

namespace {

constexpr std::chrono::milliseconds kLookAgain{20};

Error notEnded(Ready how) {
    if (how == Ready::Interrupted) return {ErrorKind::Interrupted, "interrupted; the service goes on ending"};
    return {ErrorKind::TimedOut, "the service was told to stop, but did not end within the time limit"};
}

/// Waits for the end of the process where the kernel tells it, and for the end of its sockets.
Result<Done> waitForEnd(const Tree& tree, const Descriptor& process, const Limit& limit) {
    if (process) {
        if (const Ready how = waitFor(process.get(), POLLIN, limit); how != Ready::Yes) return notEnded(how);
    }
    while (tree.has(kServiceNode)) {
        // Another service may have been started in the place of the one that ended.
        const Result<int> successor = tree.connect(kServiceNode, limit);
        if (successor && process) {
            ::close(*successor);
            return Done{};
        }
        if (successor) ::close(*successor);
        const Ready how = waitFor(-1, 0, {std::min(Limit::Clock::now() + kLookAgain, limit.until), limit.cancellation});
        if (how == Ready::Interrupted || limit.passed()) return notEnded(how);
    }
    return Done{};
}

}  // namespace

ExitCode stopVerb(Session& session) {
    const Limit limit = session.limit(kCallTime);
    Result<Node> node = Node::connect(session.tree, kServiceNode, limit);
    if (!node) return session.fail(node.error());
    const int pid = node->serverProcess();
    const Descriptor process(pid > 0 ? static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)) : -1);
    Result<std::vector<Value>> results = node->execute({Value::none("STOP")}, limit);
    if (!results) return session.fail(results.error());
    if (results->empty()) return session.complain(ExitCode::Gone, "the service was ending already");
    if (const Outcome outcome = outcomeOf(results->front()); outcome.code != ExitCode::Ok) {
        return session.complain(outcome.code, "STOP: " + outcome.words);
    }
    if (Result<Done> ended = waitForEnd(session.tree, process, limit); !ended) return session.fail(ended.error());
    if (session.json()) session.emit({{"event", "stopped"}});
    if (!session.json()) session.say("The service has ended.");
    return ExitCode::Ok;
}

}  // namespace btnode::cli
