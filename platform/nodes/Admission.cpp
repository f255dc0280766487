#include "platform/nodes/Admission.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace Services::Nodes {

namespace {

/// The share of the descriptors that the process was started with, and then as many descriptors as it may have: each
/// node takes one, and there may be thousands.
unsigned connectionLimit() {
    static const unsigned limit = [] {
        rlimit descriptors{};
        if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return Limits::kConnections;
        // Division first: RLIM_INFINITY is the largest number there is.
        const std::uint64_t share =
            descriptors.rlim_cur / 4 * Limits::kDescriptorsOf4 + descriptors.rlim_cur % 4 * Limits::kDescriptorsOf4 / 4;
        descriptors.rlim_cur = descriptors.rlim_max;
        setrlimit(RLIMIT_NOFILE, &descriptors);
        return static_cast<unsigned>(std::min<std::uint64_t>(share, Limits::kConnections));
    }();
    return limit;
}

}  // namespace

Admission::Admission() : maxConnections_(connectionLimit()), ownUser_(geteuid()) {}

const char* Admission::addConnection(uid_t user) {
    const Lock lock(lock_);
    if (connections_ >= maxConnections_) return "too many connections";
    const bool limited = user != 0 && user != ownUser_;
    if (limited) {
        unsigned& ofUser = byUser_[user];
        if (ofUser >= Limits::kConnectionsPerUser) return "too many connections of one user";
        ++ofUser;
    }
    ++connections_;
    return nullptr;
}

void Admission::removeConnection(uid_t user) {
    const Lock lock(lock_);
    --connections_;
    const auto ofUser = byUser_.find(user);
    if (ofUser != byUser_.end() && --ofUser->second == 0) byUser_.erase(ofUser);
}

bool Admission::beginRequest() noexcept {
    if (requests_.fetch_add(1, std::memory_order_relaxed) < Limits::kRequests) return true;
    endRequest();
    return false;
}

}  // namespace Services::Nodes
