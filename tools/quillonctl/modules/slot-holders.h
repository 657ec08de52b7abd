/// Who could hold the update semaphore.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace quillon {

class SlotLocks;

struct SlotHolder
{
    pid_t process = 0;    ///< 0 when its number is not known
    std::string command;  ///< its command line, or the name of its program; empty when not known
};

struct SlotHolders
{
    /// Control layers of this program that may hold it, and all others that have it open: whether
    /// those hold it or wait for it cannot be told.
    std::vector<SlotHolder> alive;
    std::vector<SlotHolder> waiting;  ///< control layers of this program that do not hold it
    std::vector<SlotHolder> stopped;  ///< those of them that a signal has stopped
    bool isComplete = true;    ///< false: there are processes that this user may not look into
    bool arePackages = false;  ///< the packages are held, not the semaphore: see PackagesLock
};

/// Looks through all processes but this one.
SlotHolders findSlotHolders(const SlotLocks& locks);

/// @return with its command
SlotHolder holderOf(pid_t process);

/// Whether a signal has stopped it.
bool isStopped(pid_t process);

/// @return for instance "process 12 (quillonctl modules update tuner), process 13"
std::string describe(const std::vector<SlotHolder>& holders);

}  // namespace quillon
