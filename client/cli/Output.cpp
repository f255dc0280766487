#include "client/cli/Output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "btnode/Resolver.h"

namespace btnode::cli {

namespace {

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view() : value;
}

bool isUtf8Locale() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const std::string_view value = variable(name);
        if (value.empty()) continue;
        const std::string_view charset = value.substr(std::min(value.find('.'), value.size()));
        return equalIgnoringCase(charset.substr(0, 6), ".UTF-8") || equalIgnoringCase(charset.substr(0, 5), ".UTF8");
    }
    return false;
}

}  // namespace

Output::Output(int fd, const Cancellation* cancellation)
    : fd_(fd), cancellation_(cancellation), terminal_(::isatty(fd) == 1) {
    if (!terminal_) return;
    dumb_ = variable("TERM").empty() || variable("TERM") == "dumb";
    colour_ = !dumb_ && variable("NO_COLOR").empty();
    canDraw_ = isUtf8Locale();
}

void Output::line(std::string_view text) {
    pending_ += text;
    pending_ += '\n';
}

void Output::raw(std::string_view text) {
    pending_ += text;
}

bool Output::flush() {
    std::string_view left = pending_;
    while (failure_ == 0 && !left.empty()) {
        const ssize_t written = ::write(fd_, left.data(), left.size());
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            // Whoever gave us the descriptor made it non-blocking.
            if (waitFor(fd_, POLLOUT, {Limit::Clock::time_point::max(), cancellation_}) == Ready::Interrupted) {
                failure_ = EINTR;
            }
        } else if (errno != EINTR || (cancellation_ != nullptr && cancellation_->raised())) {
            failure_ = errno;
        }
    }
    pending_.clear();
    return failure_ == 0;
}

Output::Size Output::size() const {
    winsize window{};
    if (!terminal_ || ::ioctl(fd_, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0)
        return {80, 24};
    return {window.ws_col, window.ws_row};
}

std::string Output::styled(std::string_view code, std::string_view text) const {
    if (!colour_) return std::string(text);
    return "\x1b[" + std::string(code) + "m" + std::string(text) + "\x1b[0m";
}

}  // namespace btnode::cli
