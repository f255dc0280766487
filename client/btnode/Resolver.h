#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "btnode/Error.h"
#include "btnode/Limit.h"
#include "btnode/Tree.h"

namespace btnode {

/// The nodes among which a short name is looked for.
enum class Wanted { Any, Device, Adapter };

/// Finds the node that a person means. In this order: a node's full name (also without "bluetooth/" and without the
/// last part, also as the socket's path); an address in any case; the NAME of a device or adapter; the beginning of an
/// address or, in any case, of a NAME. The first of these that fits anything decides; when it fits several nodes, or
/// when a NAME equals the beginning of another node's address, the answer is Ambiguous and lists them.
Result<NodeName> resolve(const Tree& tree, std::string_view text, Wanted wanted, const Limit& limit);

/// Whether the texts are equal but for the case of ASCII letters.
bool equalIgnoringCase(std::string_view one, std::string_view other);

/// The choice with the fewest typing mistakes between it and the text, or empty when none is close.
std::string nearest(std::string_view text, const std::vector<std::string>& choices);

}  // namespace btnode
