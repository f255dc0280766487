#include "platform/nodes/Log.h"

namespace Services::Nodes {

std::uint64_t logHandle() noexcept {
    static const std::uint64_t handle = SysLogFilter::reg(String::create("Nodes"));
    return handle;
}

}  // namespace Services::Nodes
