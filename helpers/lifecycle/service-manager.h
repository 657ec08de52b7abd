#pragma once

#include <string_view>

namespace quillon::unit {

/// Sends a state such as "WATCHDOG=1" to the service manager that NOTIFY_SOCKET names, as
/// sd_notify(3) describes it. Ignores failures. Does without libsystemd, since this program is also
/// built for devices that have none. Thread: any.
void tellServiceManager(std::string_view state);

}  // namespace quillon::unit
