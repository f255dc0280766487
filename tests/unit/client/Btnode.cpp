#include "tests/unit/client/Btnode.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "client/cli/Run.h"

namespace btnode::test {

namespace {

constexpr int kPatience = 60'000;

std::string contentOf(int fd) {
    std::string content;
    char chunk[4096];
    ::lseek(fd, 0, SEEK_SET);
    for (ssize_t count = ::read(fd, chunk, sizeof chunk); count > 0; count = ::read(fd, chunk, sizeof chunk)) {
        content.append(chunk, static_cast<std::size_t>(count));
    }
    ::close(fd);
    return content;
}

std::string nextLine(int fd, std::string& rest) {
    for (;;) {
        if (const std::size_t end = rest.find('\n'); end != std::string::npos) {
            std::string line = rest.substr(0, end);
            rest.erase(0, end + 1);
            return line;
        }
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, kPatience) != 1) return "(no line)";
        char chunk[4096];
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count <= 0) return "(no line)";
        rest.append(chunk, static_cast<std::size_t>(count));
    }
}

}  // namespace

Ended btnode(const std::vector<std::string>& arguments) {
    const int out = ::memfd_create("out", MFD_CLOEXEC);
    const int err = ::memfd_create("err", MFD_CLOEXEC);
    Ended ended;
    ended.code = cli::run(arguments, out, err, nullptr);
    ended.out = contentOf(out);
    ended.err = contentOf(err);
    return ended;
}

Ended btnodeInGrowingTime(const std::vector<std::string>& arguments, const std::function<void()>& before,
                          const std::function<bool(const Ended&)>& fits) {
    Ended ended;
    for (const char* timeout : {"0.1", "0.5", "3", "15", "60"}) {
        std::vector<std::string> all = arguments;
        all.insert(all.end(), {"--timeout", timeout});
        before();
        ended = btnode(all);
        if (fits(ended)) break;
    }
    return ended;
}

RunningBtnode::RunningBtnode(const std::vector<std::string>& arguments) : cancellation_(Cancellation::create()) {
    // As the program does; a write to a pipe without a reader is to fail instead.
    std::signal(SIGPIPE, SIG_IGN);
    if (::pipe2(out_, O_CLOEXEC) != 0 || ::pipe2(err_, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    thread_ = std::thread([this, arguments] {
        code_ = cli::run(arguments, out_[1], err_[1], cancellation_.get());
        ::close(out_[1]);
        ::close(err_[1]);
    });
}

RunningBtnode::~RunningBtnode() {
    if (thread_.joinable()) {
        interrupt();
        thread_.join();
    }
    if (out_[0] >= 0) ::close(out_[0]);
    ::close(err_[0]);
}

std::string RunningBtnode::line() {
    return nextLine(out_[0], outRest_);
}
std::string RunningBtnode::errorLine() {
    return nextLine(err_[0], errRest_);
}
void RunningBtnode::interrupt() {
    cancellation_->raise();
}

void RunningBtnode::closeOutput() {
    ::close(out_[0]);
    out_[0] = -1;
}

Ended RunningBtnode::wait() {
    thread_.join();
    Ended ended;
    ended.code = code_;
    ended.out = outRest_;
    ended.err = errRest_;
    char chunk[4096];
    for (auto [fd, text] : {std::pair{out_[0], &ended.out}, {err_[0], &ended.err}}) {
        if (fd < 0) continue;
        for (ssize_t count = ::read(fd, chunk, sizeof chunk); count > 0; count = ::read(fd, chunk, sizeof chunk)) {
            text->append(chunk, static_cast<std::size_t>(count));
        }
    }
    return ended;
}

}  // namespace btnode::test
