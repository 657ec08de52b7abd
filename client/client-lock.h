/// One client at a time on a machine.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/fd.h"
#include "client/deadline.h"
#include "quillon/client.h"

namespace quillon {

/// A lock on a file that all clients share, whoever they run as. The kernel releases it when its
/// holder ends. The file stays: removing it would let two clients hold locks on two files.
class ClientLock
{
public:
    ClientLock() = default;
    ~ClientLock() { release(); }
    ClientLock(const ClientLock&) = delete;
    ClientLock& operator=(const ClientLock&) = delete;

    /// Takes the lock on `path`, trying until the deadline has passed. The file is made when it is
    /// missing, writable for everyone whatever the umask. What is no regular file, a symbolic link,
    /// and what may not be opened is refused and left as it is. A file with a second name is only
    /// locked, neither read nor written, and refused unless its mode is 0666.
    /// @return kBusy with the holder's process id when it is known; kSystem, with who has to remove
    ///         what when something is in the way
    Error acquire(const std::string& path, const Deadline& deadline);

    /// Gives the lock up; in a child forked off by the holder it only closes the child's copy.
    void release();
    bool isHeld() const { return static_cast<bool>(file_); }

    /// @return "/run/lock/quillon-client.lock" where every user may write to /run/lock, else
    ///         "/tmp/quillon-client.lock". It does not depend on who asks, so that a client run by
    ///         root and one run by somebody else meet at the same file.
    static std::string defaultPath();

private:
    UniqueFd file_;
    pid_t owner_ = 0;
};

}  // namespace quillon
