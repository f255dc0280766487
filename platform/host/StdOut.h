#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

/// Descriptor 1 as the host writes it, whatever stands behind it (file, pipe, terminal, socket). The mode of the open
/// file, which other processes may share, is left alone. Looked at anew at each write, so that it may be redirected at
/// any time. Allocates nothing. Any thread.
class StdOut {
public:
    /// Writes what can be written without waiting for a reader: the number of bytes, 0 when there is no room or no way
    /// to write without waiting, -1 (errno) on an error.
    static ssize_t writeSome(std::string_view bytes) noexcept;
    /// Writes, and may wait for a reader to do so; else as writeSome().
    static ssize_t writeWaiting(std::string_view bytes) noexcept;
    /// Waits for room, or an error to be reported, at most `timeoutMs` milliseconds; false when there is neither.
    static bool awaitRoom(int timeoutMs) noexcept;
    /// Whether it is the stream that JOURNAL_STREAM ("device:inode" of it) names.
    static bool isJournal() noexcept;
};
