#include "helpers/shared/callers.h"

#include <sys/socket.h>

#include <algorithm>

#include "helpers/shared/failure.h"

namespace quillon {

namespace {

std::vector<gid_t> supplementaryGroupsOf(int connection)
{
    std::vector<gid_t> groups(64);
    for (;;) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const int result = getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
        if (result != 0 && errno != ERANGE) {
            failWithErrno("groups of a client");
        }
        groups.resize(size / sizeof(gid_t));
        if (result == 0) {
            return groups;
        }
    }
}

}  // namespace

Peer peerOf(int connection)
{
    ucred credentials = {};
    socklen_t size = sizeof credentials;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        failWithErrno("credentials of a client");
    }
    Peer peer{credentials.pid, credentials.uid, supplementaryGroupsOf(connection)};
    peer.groups.push_back(credentials.gid);
    return peer;
}

bool mayAsk(const Callers& callers, const Peer& peer)
{
    if (peer.user == 0 || peer.user == callers.user) {
        return true;
    }
    return callers.group &&
           std::find(peer.groups.begin(), peer.groups.end(), *callers.group) != peer.groups.end();
}

}  // namespace quillon
