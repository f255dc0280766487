#pragma once

#include <string>
#include <vector>

#include "client/cli/Output.h"

namespace btnode::cli {

/// A block of lines at the bottom of a terminal's output that is drawn again in its own place.
class LiveBlock {
public:
    /// For an output that can redraw.
    explicit LiveBlock(Output& out) : out_(out) {}

    /// Replaces what was drawn before. Lines must fit the terminal. False when the terminal is gone.
    bool draw(const std::vector<std::string>& lines);

private:
    Output& out_;
    std::size_t drawn_ = 0;
};

}  // namespace btnode::cli
