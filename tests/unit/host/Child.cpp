#include "tests/unit/host/Child.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

#include "tests/unit/support/Waiting.h"

namespace HostTest {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this == &other) return *this;
    close();
    number_ = other.release();
    return *this;
}

int Descriptor::release() {
    return std::exchange(number_, -1);
}

void Descriptor::close() {
    if (number_ >= 0) ::close(release());
}

Pipe::Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    read = Descriptor(ends[0]);
    write = Descriptor(ends[1]);
}

Reader::More Reader::readMore() {
    constexpr int kLimitMs = 20'000;
    pollfd ready{descriptor_, POLLIN, 0};
    if (poll(&ready, 1, kLimitMs) <= 0) return More::Nothing;
    std::array<char, 65536> bytes;
    const ssize_t count = read(descriptor_, bytes.data(), bytes.size());
    if (count <= 0) return More::End;  // a terminal ends with an error
    buffer_.append(bytes.data(), static_cast<std::size_t>(count));
    return More::Bytes;
}

std::optional<std::string> Reader::line() {
    std::size_t end = buffer_.find('\n');
    for (std::size_t searched = 0; end == std::string::npos; end = buffer_.find('\n', searched)) {
        searched = buffer_.size();
        if (readMore() != More::Bytes) return std::nullopt;
    }
    std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return line;
}

std::string Reader::rest() {
    More more = More::Bytes;
    while (more == More::Bytes) more = readMore();
    if (more == More::Nothing) buffer_ += "(and no end)";
    return std::exchange(buffer_, {});
}

namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers(texts.size());
    std::transform(texts.begin(), texts.end(), pointers.begin(), [](std::string& text) { return text.data(); });
    return pointers;
}

}  // namespace

Child::Child(const Setup& setup) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    Pipe in;
    Pipe out;
    Pipe err;
    if (setup.closeAll) {
        for (const int descriptor : {0, 1, 2}) posix_spawn_file_actions_addclose(&actions, descriptor);
    } else {
        posix_spawn_file_actions_adddup2(&actions, in.read.get(), 0);
        posix_spawn_file_actions_adddup2(&actions, setup.output == kPipe ? out.write.get() : setup.output, 1);
        posix_spawn_file_actions_adddup2(&actions, err.write.get(), 2);
    }

    std::vector<std::string> texts = {BTN_HOST_CHILD};
    texts.insert(texts.end(), setup.arguments.begin(), setup.arguments.end());
    std::vector<char*> arguments = pointersTo(texts);
    arguments.push_back(nullptr);
    std::vector<std::string> added = setup.environment;
    std::vector<char*> environment = pointersTo(added);
    char** end = environ;
    while (*end) ++end;
    environment.insert(environment.end(), environ, end + 1);  // with the null pointer that ends it

    for (const int number : setup.ignoredSignals) ::signal(number, SIG_IGN);  // inherited
    const int error = posix_spawn(&process_, BTN_HOST_CHILD, &actions, nullptr, arguments.data(), environment.data());
    for (const int number : setup.ignoredSignals) ::signal(number, SIG_DFL);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " BTN_HOST_CHILD);

    input_ = std::move(in.write);
    output_ = std::move(out.read);
    error_ = std::move(err.read);
    outputReader_ = Reader(output_.get());
    errorReader_ = Reader(error_.get());
}

Child::~Child() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
}

void Child::signal(int number) const {
    kill(process_, number);
}

int Child::wait() {
    int status = 0;
    if (!UnitTest::waitUntil([&] { return waitpid(process_, &status, WNOHANG) != 0; })) return -1;
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace HostTest
