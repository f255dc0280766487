#pragma once

#include <string_view>

namespace Services::Nodes {

constexpr std::string_view kNodeInterface = "com.kelvo.node";
constexpr std::string_view kServiceInterface = "org.varlink.service";

/// Descriptions as GetInterfaceDescription gives them.
extern const std::string_view kNodeInterfaceText;
extern const std::string_view kServiceInterfaceText;

}  // namespace Services::Nodes
