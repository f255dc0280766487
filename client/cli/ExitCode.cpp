#include "client/cli/ExitCode.h"

namespace btnode::cli {

ExitCode exitCodeOf(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::Unreachable:
            return ExitCode::Unreachable;
        case ErrorKind::NotFound:
        case ErrorKind::Ambiguous:
            return ExitCode::NotFound;
        case ErrorKind::Denied:
            return ExitCode::Denied;
        case ErrorKind::TimedOut:
            return ExitCode::TimedOut;
        case ErrorKind::Gone:
            return ExitCode::Gone;
        case ErrorKind::Busy:
            return ExitCode::Busy;
        case ErrorKind::Interrupted:
            return ExitCode::Interrupted;
        case ErrorKind::Invalid:
            return ExitCode::Usage;
        case ErrorKind::Refused:
        case ErrorKind::Protocol:
        case ErrorKind::System:
            break;
    }
    return ExitCode::Failure;
}

}  // namespace btnode::cli
