#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// Limits on everything that a client can make grow. What happens past each is told in docs/node-protocol.md; a limit
/// that a connection runs into is logged once for that connection.
namespace Services::Nodes::Limits {

/// Bytes of one message, without its NUL.
constexpr std::size_t kMessageBytes = 256 * 1024;
/// Depth of nested values; a value that is itself a parameter (an action) is at depth 1.
constexpr unsigned kValueDepth = 16;
/// From the first byte of a message to its last; stands still while the service leaves it unread.
constexpr std::chrono::seconds kMessageTime{10};
/// Calls of one connection that were read and not answered, the one being served included.
constexpr unsigned kPendingCalls = 64;
/// Bytes of calls that one connection may have waiting behind the one being served; what follows stays unread.
constexpr std::size_t kReadAheadBytes = 256 * 1024;

/// Connections of one user; root and the service's own user are bound by the total only.
constexpr unsigned kConnectionsPerUser = 128;
/// Connections in all.
constexpr unsigned kConnections = 512;
/// The part of RLIMIT_NOFILE's soft limit, as it was at the start, that connections may take: three quarters.
constexpr std::uint64_t kDescriptorsOf4 = 3;

/// Gets, Sets and Executes being served at the same time, over all nodes. How many of them may be in bus calls is
/// RequestContext::kMaxBusCalls.
constexpr unsigned kRequests = 256;

/// Bytes of replies to one connection that the kernel did not take; one larger reply may stand.
constexpr std::size_t kBacklogBytes = 256 * 1024;
/// How long the larger reply may stand without the client reading any of it.
constexpr std::chrono::seconds kBacklogTime{10};
/// How long the end of the process waits for clients to take their last replies.
constexpr std::chrono::milliseconds kFinalFlush{100};

/// Threads that stay, waiting for events, when nothing happens: one to take the next event, one to follow it.
constexpr int kSpareThreads = 2;
/// How long a thread beyond these waits for work before it ends.
constexpr std::chrono::milliseconds kIdleThread{5000};
/// Stack of a request thread; address space, of which only what is touched takes memory.
constexpr std::size_t kThreadStackBytes = 1024 * 1024;
/// After an accept that failed for want of memory or descriptors in the system: when it is tried again.
constexpr std::chrono::milliseconds kAcceptRetry{100};

}  // namespace Services::Nodes::Limits
