#pragma once

#include <string>
#include <vector>

#include "btnode/Limit.h"

namespace btnode::cli {

/// The whole program but for its process: the arguments without the program's name, the descriptors of its output and
/// of its messages, and what Ctrl-C raises (may be null). Gives the exit code.
int run(const std::vector<std::string>& arguments, int out, int err, const Cancellation* cancellation);

}  // namespace btnode::cli
