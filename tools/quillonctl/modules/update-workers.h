/// The threads on which the registry updates modules.
#ifndef QUILLON_QUILLONCTL_UPDATE_WORKERS_H
#define QUILLON_QUILLONCTL_UPDATE_WORKERS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace quillon {

/// The registry gives each worker its firmware's name before it works; the program is linked so
/// that this call arrives here. What a module renames or starts later is therefore no worker, and
/// nothing has to be read from /proc, which a module may have made unreadable.
struct UpdateWorker
{
    std::string firmwareName;
    pid_t thread = 0;
    std::chrono::steady_clock::time_point began;
};

/// All that have begun in this process, the oldest first. Thread: any.
std::vector<UpdateWorker> updateWorkers();

/// Whether its thread still exists.
bool isAlive(const UpdateWorker& worker);

}  // namespace quillon

#endif
