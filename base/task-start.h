#pragma once

#include <string>

namespace quillon {

/// When a process or a thread began.
/// @param directory  /proc/PID or /proc/PID/task/TID
/// @return in seconds since boot, to a hundredth; 0 when it is gone
/// Thread: any. Throws std::bad_alloc.
double startOfTask(const std::string& directory);

}  // namespace quillon
