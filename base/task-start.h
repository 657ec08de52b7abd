#pragma once

#include <string>

namespace quillon {

/// When a process or a thread began.
/// @param directory  /proc/PID or /proc/PID/task/TID
/// @return in seconds since boot, to a hundredth; 0 when it is gone
/// Thread: any. Throws std::bad_alloc.
double startOfTask(const std::string& directory);

/// Whether a process has ended, and stays in the list because nobody has waited for it: in a
/// container whose first process does not, it stays there as long as the container.
/// @param directory  /proc/PID
/// Thread: any. Throws std::bad_alloc.
bool isUnreapedTask(const std::string& directory);

}  // namespace quillon
