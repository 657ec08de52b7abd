#include "sd-notify.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace quillon {

namespace {
constexpr int kKeepEnvironment = 0;
}

int tellServiceManager(const char* state)
{
    const int result = sd_notify(kKeepEnvironment, state);
    return result < 0 ? result : 0;
}

int serviceManagerWatchdog(std::chrono::microseconds& timeout)
{
    std::uint64_t microseconds = 0;
    const int result = sd_watchdog_enabled(kKeepEnvironment, &microseconds);
    if (result <= 0) {
        return result;
    }
    timeout = std::chrono::microseconds(microseconds);
    return 1;
}

}  // namespace quillon
