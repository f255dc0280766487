#pragma once

#include <array>
#include <string>

#include "platform/nodes/Varlink.h"

namespace Services::Nodes {

/// What a request thread needs for its work, reused from request to request: an idle connection has no buffers.
struct Worker {
    std::array<char, 16 * 1024> input;
    std::string message;  ///< the message being served, when it had to wait before
    JsonReader envelope;  ///< holds what the Call refers to
    JsonReader parameters;
    Reply reply;
};

}  // namespace Services::Nodes
