#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "btnode/Limit.h"
#include "client/cli/ExitCode.h"
#include "client/cli/Run.h"

namespace {

const btnode::Cancellation* cancellation = nullptr;
volatile std::sig_atomic_t received = 0;

// The first signal asks the verb to end and to set right what it began; the second one ends the process (SA_RESETHAND).
void onSignal(int number) {
    received = number;
    cancellation->raise();
}

void installSignals() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    // Without SA_RESTART: a write that blocks must end too.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        ::sigaction(number, nullptr, &before);
        // nohup, and shells that start a job in the background, ignore some of them on purpose.
        if (before.sa_handler != SIG_IGN) ::sigaction(number, &action, nullptr);
    }
    std::signal(SIGPIPE, SIG_IGN);
}

/// A socket must not become descriptor 1, for data would be written into it. What was closed stays unusable: reading
/// for standard output, writing for standard input.
void occupyStandardDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardDescriptors();
    const std::unique_ptr<btnode::Cancellation> own = btnode::Cancellation::create();
    if (own != nullptr) {
        cancellation = own.get();
        installSignals();
    }
    const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    const int code = btnode::cli::run(arguments, STDOUT_FILENO, STDERR_FILENO, own.get());
    return received != 0 && code == static_cast<int>(btnode::cli::ExitCode::Interrupted) ? 128 + received : code;
}
