#pragma once

#include <span>
#include <string_view>

namespace btnode::cli {

struct VerbHelp {
    std::string_view verb;
    /// One line, for the list of verbs.
    std::string_view summary;
    /// What follows the options in the verb's own help: its rules and examples.
    std::string_view more;
};

/// All verbs, in the order in which help lists them.
std::span<const VerbHelp> verbs();
const VerbHelp* findVerb(std::string_view verb);

extern const std::string_view kNodeNames;
extern const std::string_view kExitCodes;

}  // namespace btnode::cli
