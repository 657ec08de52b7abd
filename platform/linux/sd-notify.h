#ifndef QUILLON_PLATFORM_LINUX_SD_NOTIFY_H
#define QUILLON_PLATFORM_LINUX_SD_NOTIFY_H

#include <chrono>

namespace quillon {

/// Tells the service manager a state such as "READY=1".
/// @return 0 when told or when no service manager listens (NOTIFY_SOCKET is unset); a negative
/// errno
///         value when the message could not be sent.
/// Thread: any. Never throws. The environment stays as it is.
int tellServiceManager(const char* state);

/// Finds out whether the service manager expects WATCHDOG=1 from this very process.
/// @param[out] timeout  the longest time between two messages; untouched when none is expected
/// @return 1 when expected, 0 when not, a negative errno value when the environment is malformed.
/// Thread: any. Never throws.
int serviceManagerWatchdog(std::chrono::microseconds& timeout);

}  // namespace quillon

#endif
