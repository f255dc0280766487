#pragma once

#include <cstdint>

#include "platform/host/SysLog.h"

namespace Services::Nodes {

/// The framework's handle of the log filter "Nodes".
std::uint64_t logHandle() noexcept;

/// Levels of the framework's records.
constexpr std::uint32_t kLogDegraded = 3;
constexpr std::uint32_t kLogFailure = 4;

}  // namespace Services::Nodes
