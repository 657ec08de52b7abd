#ifndef QUILLON_HELPERS_LIFECYCLE_NOTIFY_WATCHDOG_H
#define QUILLON_HELPERS_LIFECYCLE_NOTIFY_WATCHDOG_H

namespace quillon::unit {

/// Sends WATCHDOG=1 to the service manager, where one listens (NOTIFY_SOCKET). Ignores failures.
/// Our own few lines, since this program is also built for devices without libsystemd.
/// Source: sd_notify(3), "Notes". Never throws.
void notifyWatchdog();

}  // namespace quillon::unit

#endif
