#pragma once

#include <string>

#include "tools/quillon-device/init.h"

namespace quillon::device {

/// The mark by which this machine shows itself to be a disposable container, or "" for any other.
std::string disposableContainerMark();

/// Runs the command on this machine's own paths, one such device at a time: waits for its turn,
/// makes the service's directories, and takes away afterwards what lies in them, the queues, the
/// semaphore and every process that was left behind. Needs takeSignals().
///
/// @return the exit status
/// @throws SetupError when the caller may not write there, or when there is real content that no
///         device has left: nothing of it is touched
int runInPlace(const Command& command);

/// Why nothing can run in place for this caller; "" when it can.
std::string obstacleInPlace();

}  // namespace quillon::device
