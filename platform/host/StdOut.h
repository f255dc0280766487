#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

/// Descriptor 1 as the host writes it: whatever stands behind it (file, pipe, terminal, socket), a write never waits
/// for a reader, and the mode of the open file, which other processes may share, is left alone. Looked at anew at each
/// write, so that it may be redirected at any time. Allocates nothing. Any thread; a pipe that other processes fill is
/// safe, too.
class StdOut {
public:
    /// Writes what can be written at once: the number of bytes, 0 when there is no room, -1 (errno) on an error.
    static ssize_t writeSome(std::string_view bytes) noexcept;
    /// Waits until there may be room, or an error to be reported, at most `timeoutMs` milliseconds.
    static void awaitRoom(int timeoutMs) noexcept;
    /// Whether it is the stream that JOURNAL_STREAM ("device:inode" of it) names.
    static bool isJournal() noexcept;
};
