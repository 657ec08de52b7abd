/// The lock by which control layers leave each other's packages alone.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>

#include "tools/quillonctl/modules/slot-holders.h"

namespace quillon {

/// To look at a package, the registry mounts it anew, also one that somebody is flashing from. So
/// one control layer at a time may be at the packages.
///
/// The lock lies on the directory that they are mounted in: who can have a package mounted can open
/// it, and only they could replace it. It ends with the process. The processes that a module forks
/// do not keep it.
class PackagesLock
{
public:
    /// The one of this process.
    static PackagesLock& instance();

    /// Also true where the directory is missing, since nothing can be mounted there.
    /// @return false when another process has the lock. Throws Failure when it cannot be told
    bool take();
    /// Whether this process has taken it and not given it up. When a module has closed its file,
    /// it is taken again. Thread: any.
    bool has();
    /// Thread: any. Safe in a signal handler, and without effect in a forked process.
    void giveUp();

    /// Who has it at this moment; its process is 0 when that is not known.
    static SlotHolders holders();

private:
    int tryToTake();

    std::mutex mutex_;  ///< of take() and has(), and nothing else
    bool isOwnFile(int file) const;
    static void leaveToParent();

    std::atomic<int> file_{-1};
    std::atomic<bool> isTaken_{false};
    struct stat directory_ = {};
    pid_t process_ = 0;
};

/// @param holders  of the packages
/// @return "the packages are in use by", who it is and what it does
std::string phraseOfPackages(const SlotHolders& holders);

}  // namespace quillon
