#pragma once

#include <sys/types.h>

#include <string>

#include "base/fd.h"
#include "helpers/shared/callers.h"

namespace quillon::privileged {

/// The socket that a service manager has opened for this process, by the LISTEN_PID and LISTEN_FDS
/// of the environment; empty when there is none.
/// @throws Failure when there are several, or one of another kind
UniqueFd inheritedSocket();

/// A listening socket that we made, with its name in the file system.
class OwnSocket
{
public:
    /// Makes the socket, and its directory if that is missing. A socket that nobody listens on any
    /// more is replaced; anything else in its place is left alone. Mode 0660, owned by the callers.
    /// @param path  absolute
    /// @throws Failure, with EADDRINUSE when another process listens there
    OwnSocket(const std::string& path, const Callers& callers);

    /// Removes the name, unless it has become somebody else's.
    ~OwnSocket();
    OwnSocket(const OwnSocket&) = delete;
    OwnSocket& operator=(const OwnSocket&) = delete;

    int get() const { return socket_.get(); }

private:
    std::string path_;
    UniqueFd socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace quillon::privileged
