#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/nodes/Fd.h"

namespace Services::Nodes {

/// The right to serve one server name under one root: a locked file ROOT/.NAME.lock that has the id of the process in
/// it that took it last. The file stays when the lock goes, so that two processes never hold locks on two files of one
/// name.
class ServerLock {
public:
    /// Nothing when the lock cannot be had; `reason` says why, and by whom it is held.
    static std::optional<ServerLock> take(int root, std::string_view server, std::string& reason);
    static std::string fileName(std::string_view server);
    /// Gives the right back, as the destructor does.
    void release() { file_.reset(); }

private:
    explicit ServerLock(Fd file) : file_(std::move(file)) {}
    Fd file_;
};

}  // namespace Services::Nodes
