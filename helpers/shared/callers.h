#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

namespace quillon {

/// Who is at the other end of a connection, as the kernel noted it when the connection was made.
struct Peer
{
    pid_t pid = -1;
    uid_t user = static_cast<uid_t>(-1);
    std::vector<gid_t> groups;  ///< the primary one and all supplementary ones
};

/// @throws Failure
Peer peerOf(int connection);

/// Who may ask, next to root.
struct Callers
{
    std::optional<uid_t> user;
    std::optional<gid_t> group;
};

bool mayAsk(const Callers& callers, const Peer& peer);

}  // namespace quillon
