#include "platform/host/StdIO.h"

#include <chrono>

#include "platform/host/StdOut.h"

namespace {
/// How long a reader that does not keep up may hold up a text.
constexpr auto kPatience = std::chrono::milliseconds(500);
constexpr int kPollMs = 20;
}  // namespace

void StdIO::Writer::write(std::string_view text) noexcept {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!text.empty()) {
        const ssize_t written = StdOut::writeSome(text);
        if (written < 0) return;
        text.remove_prefix(static_cast<std::size_t>(written));
        if (written > 0) continue;
        if (std::chrono::steady_clock::now() >= deadline) return;
        StdOut::awaitRoom(kPollMs);
    }
}

StdIO::Writer& StdIO::stdOutWriter() noexcept {
    static constinit Writer writer;
    return writer;
}
