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
    bool claimsRoom = false;
    while (!text.empty()) {
        ssize_t written = StdOut::writeSome(text);
        // A terminal that cannot be written without waiting: where it has room, it has room for a byte.
        if (written == 0 && claimsRoom) written = StdOut::writeWaiting(text.substr(0, 1));
        if (written < 0) return;
        text.remove_prefix(static_cast<std::size_t>(written));
        claimsRoom = false;
        if (written > 0) continue;
        if (std::chrono::steady_clock::now() >= deadline) return;
        claimsRoom = StdOut::awaitRoom(kPollMs);
    }
}

StdIO::Writer& StdIO::stdOutWriter() noexcept {
    static constinit Writer writer;
    return writer;
}
