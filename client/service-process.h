/// The process behind the queues.
#pragma once

#include <sys/types.h>

#include <vector>

#include "base/fd.h"

namespace quillon {

/// Whose the queues are.
struct QueueOwner
{
    uid_t user;
    gid_t group;
};

/// Notices the end of the service, which leaves its queues behind when it is killed. That is a help
/// and no more: where the process cannot be seen, it is never reported as ended.
class ServiceProcess
{
public:
    /// Looks for processes called "quillon-service" in this process's PID namespace. Does nothing
    /// when it has found one before. Finds none where the program has another name, runs in another
    /// namespace, or /proc hides it.
    /// @param queues  whose processes to look for: those of the queues' user; where that is root,
    ///                also those of the life marker's owner, when the queues' group is among their
    ///                supplementary ones
    void find(const QueueOwner& queues);
    void forget() { handles_.clear(); }

    /// @return whether one was found and all that were found have ended. One that nobody has waited
    ///         for counts as ended.
    bool hasEnded() const;

private:
    std::vector<UniqueFd> handles_;  ///< pidfds
};

}  // namespace quillon
