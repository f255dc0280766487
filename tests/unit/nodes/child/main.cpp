// A process for the tests. Every mode prints one line when it is there and ends at the end of its standard input.
//
//   serve NAME NODE...          serves the nodes; "ready", or "refused"
//   churn NAME NODE...          "ready", then publishes and withdraws the nodes without end
//   terminate NODE ACTION       "started"; serves the node, which SIGTERM executes the action on, after a byte was
//   read:
//                               "ready", and "executed" when it was
//   limited DESCRIPTORS NODE    as serve, with RLIMIT_NOFILE (soft and hard) at that number
//   threadless USER NODE        as serve, as user USER, who can start no more threads; "urgent" is the urgent node
//   connect USER COUNT NODE     as user USER, opens COUNT connections; prints how many of them stay open

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/host/InitCode.h"
#include "platform/host/Proc.h"
#include "tests/unit/nodes/Client.h"
#include "tests/unit/nodes/Fixture.h"

namespace {

using NodesTest::Client;
using NodesTest::TestService;

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void awaitEndOfInput() {
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

int serve(const std::string& name, const std::vector<std::string>& nodes) {
    TestService service(name);
    if (!service.running()) {
        say("refused");
        return 1;
    }
    std::uint64_t id = 0;
    for (const std::string& node : nodes) service.add(node, ++id);
    say("ready");
    awaitEndOfInput();
    return service.stop() ? 0 : 2;
}

int churn(const std::string& name, const std::vector<std::string>& nodes) {
    TestService service(name);
    if (!service.running()) return 1;
    say("ready");
    for (std::uint64_t id = 0;; ++id) {
        for (const std::string& node : nodes) service.add(node, id);
        for (const std::string& node : nodes) service.remove(node);
    }
}

int terminate(const std::string& node, const std::string& action) {
    Proc::takeSignals();
    Services::Nodes::requestOnTermination(String::create(node), String::create(action));
    TestService service("Child");
    if (!service.running()) return 1;
    say("started");
    char byte = 0;
    if (::read(STDIN_FILENO, &byte, 1) != 1) return 1;  // the test sends a byte when the node is to be published
    service.add(node, 1);
    say("ready");
    if (NodesTest::waitUntil([&] { return service.server().begunCount(action) > 0; })) say("executed");
    awaitEndOfInput();
    return service.stop() ? 0 : 2;
}

int threadless(uid_t user, const std::string& node) {
    Services::Nodes::requestOnTermination(String::create("urgent"), String::create("STOP"));
    if (::setgid(user) != 0 || ::setuid(user) != 0) return 1;
    TestService service("Child");
    rlimit threads{};
    ::getrlimit(RLIMIT_NPROC, &threads);
    const rlimit none{0, threads.rlim_max};
    if (!service.running() || ::setrlimit(RLIMIT_NPROC, &none) != 0) return 1;
    service.add(node, 1);
    service.add("urgent", 2);
    say("ready");
    awaitEndOfInput();
    const bool stopped = service.stop();
    // A leak checker begins a thread at the end, which looks into this process.
    ::setrlimit(RLIMIT_NPROC, &threads);
    ::prctl(PR_SET_DUMPABLE, 1);
    return stopped ? 0 : 2;
}

int connectAs(uid_t user, std::size_t count, const std::string& node) {
    if (::setgid(user) != 0 || ::setuid(user) != 0) return 1;
    std::vector<std::unique_ptr<Client>> clients;
    std::size_t open = 0;
    for (std::size_t at = 0; at < count; ++at) {
        clients.push_back(std::make_unique<Client>(node));
        if (!clients.back()->connected()) return 2;
        if (clients.back()->call(NodesTest::getCall("NAME")) != "closed") ++open;
    }
    say(std::to_string(open));
    awaitEndOfInput();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    InitCode::runInitialisers();
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() < 3) return 64;
    const std::string& mode = arguments[0];
    if (mode == "serve") return serve(arguments[1], {arguments.begin() + 2, arguments.end()});
    if (mode == "churn") return churn(arguments[1], {arguments.begin() + 2, arguments.end()});
    if (mode == "terminate") return terminate(arguments[1], arguments[2]);
    if (mode == "limited") {
        const rlim_t descriptors = std::stoul(arguments[1]);
        const rlimit limit{descriptors, descriptors};
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
        return serve("Child", {arguments[2]});
    }
    if (mode == "threadless") return threadless(static_cast<uid_t>(std::stoul(arguments[1])), arguments[2]);
    if (mode == "connect" && arguments.size() == 4) {
        return connectAs(static_cast<uid_t>(std::stoul(arguments[1])), std::stoul(arguments[2]), arguments[3]);
    }
    return 64;
}
