#include "tests/unit/nodes/Child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "tests/unit/support/Waiting.h"

extern char** environ;

namespace NodesTest {

Child::Child(const std::vector<std::string>& arguments) {
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) std::abort();
    const Services::Nodes::Fd childInput(input[0]);
    const Services::Nodes::Fd childOutput(output[1]);
    input_ = Services::Nodes::Fd(input[1]);
    output_ = Services::Nodes::Fd(output[0]);

    std::vector<std::string> texts{BTN_NODES_CHILD};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childInput.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOutput.get(), STDOUT_FILENO);
    if (::posix_spawn(&process_, BTN_NODES_CHILD, &actions, nullptr, pointers.data(), environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
}

Child::~Child() {
    if (process_ < 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
}

std::optional<std::string> Child::line() {
    const auto end = std::chrono::steady_clock::now() + UnitTest::kPatience;
    for (;;) {
        if (const std::size_t newline = buffer_.find('\n'); newline != std::string::npos) {
            std::string line = buffer_.substr(0, newline);
            buffer_.erase(0, newline + 1);
            // "TIME [LEVEL] PROCESS/THREAD ..."
            if (line.find("Z [") == std::string::npos) return line;
            records_.push_back(line.substr(line.find('[')));
            continue;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd readable{output_.get(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) return {};
        char bytes[4096];
        const ssize_t size = ::read(output_.get(), bytes, sizeof bytes);
        if (size <= 0) return {};
        buffer_.append(bytes, static_cast<std::size_t>(size));
    }
}

void Child::write(std::string_view bytes) const {
    [[maybe_unused]] const ssize_t written = ::write(input_.get(), bytes.data(), bytes.size());
}

void Child::signal(int number) const {
    ::kill(process_, number);
}

int Child::end() {
    input_.reset();
    return wait();
}

int Child::wait() {
    int status = 0;
    if (!UnitTest::waitUntil([&] { return ::waitpid(process_, &status, WNOHANG) == process_; })) return -1;
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace NodesTest
