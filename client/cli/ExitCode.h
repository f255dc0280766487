#pragma once

#include "btnode/Error.h"

namespace btnode::cli {

/// What the program's end tells a script. Documented in docs/btnode.md and in --help; never renumbered.
enum class ExitCode : int {
    Ok = 0,
    Failure = 1,       ///< the service answered with a failure, or the output could not be written
    Usage = 2,         ///< the command line says nothing that can be done
    NotFound = 3,      ///< no such node, attribute or profile; or a short name that fits several
    TimedOut = 4,      ///< the time limit passed first
    Unreachable = 5,   ///< no service is running
    Denied = 6,        ///< the socket's permissions keep the user out
    Refused = 7,       ///< the device or BlueZ refused the pairing or the profile
    Rejected = 8,      ///< a pairing that had begun did not end paired
    Gone = 9,          ///< the node was withdrawn, or the service ended, in the middle
    Busy = 10,         ///< the service has more requests in progress than it takes
    Interrupted = 130  ///< Ctrl-C; other signals give 128 and their number
};

/// When the reader of the output went away, as a shell reports a death by SIGPIPE.
inline constexpr int kReaderGone = 141;

ExitCode exitCodeOf(ErrorKind kind);

}  // namespace btnode::cli
