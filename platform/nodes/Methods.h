#pragma once

#include <cstdint>

#include "platform/nodes/NodeService.h"
#include "platform/nodes/Varlink.h"

namespace Services::Nodes {

class Node;
struct Worker;

/// What became of a call.
enum class Outcome : std::uint8_t {
    Dropped,   ///< it was not begun
    Lost,      ///< what the server needs for its work is gone, the process ends: no answer, and no further call
    Answered,  ///< the reply is in the worker
    Busy,      ///< as Answered, with an error: a limit on what many clients share
    TooDeep,   ///< as Answered, with an error: values are nested too deep
    Watch,     ///< a watch is to begin, with the reply in the worker as its first
};

/// Serves one call on the calling thread and builds its reply in the worker, also for a call that gets none.
Outcome serveCall(Node& node, const NodeService::Use& use, const Call& call, Worker& worker);

/// The error that ends a watch.
std::string_view withdrawnError(Reply& reply);

}  // namespace Services::Nodes
