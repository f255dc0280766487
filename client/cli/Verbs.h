#pragma once

#include "client/cli/ExitCode.h"
#include "client/cli/Session.h"

/// One function a verb. Each says on standard error what went wrong, and returns the code to exit with.
namespace btnode::cli {

ExitCode listVerb(Session& session);
ExitCode showVerb(Session& session);
ExitCode getVerb(Session& session);
ExitCode doVerb(Session& session);
ExitCode watchVerb(Session& session);
ExitCode scanVerb(Session& session);
ExitCode stopVerb(Session& session);
ExitCode pairVerb(Session& session);
ExitCode waitVerb(Session& session);
ExitCode cancelVerb(Session& session);
ExitCode profilesVerb(Session& session);
ExitCode activateVerb(Session& session);

}  // namespace btnode::cli
