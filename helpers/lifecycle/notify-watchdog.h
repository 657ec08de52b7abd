#ifndef QUILLON_HELPERS_LIFECYCLE_NOTIFY_WATCHDOG_H
#define QUILLON_HELPERS_LIFECYCLE_NOTIFY_WATCHDOG_H

namespace quillon::unit {

/// Sends WATCHDOG=1 to the service manager that NOTIFY_SOCKET names. Ignores failures. Does without
/// libsystemd, since this program is also built for devices that have none.
/// Source: sd_notify(3), "Notes". Never throws.
void notifyWatchdog();

}  // namespace quillon::unit

#endif
