#pragma once

#include <sys/types.h>

#include <atomic>
#include <unordered_map>

#include "platform/nodes/Limits.h"
#include "platform/nodes/Mutex.h"

namespace Services::Nodes {

/// Counts what many clients share: connections, by user and in all, and requests being served.
class Admission {
public:
    Admission();

    /// A text that names the limit when one more connection of the user would be past it; null when it was counted.
    const char* addConnection(uid_t user);
    void removeConnection(uid_t user);

    bool beginRequest() noexcept;
    void endRequest() noexcept { requests_.fetch_sub(1, std::memory_order_relaxed); }

private:
    const unsigned maxConnections_;
    const uid_t ownUser_;
    Mutex lock_;
    unsigned connections_ GUARDED_BY(lock_) = 0;
    std::unordered_map<uid_t, unsigned> byUser_ GUARDED_BY(lock_);
    std::atomic<unsigned> requests_{0};
};

}  // namespace Services::Nodes
