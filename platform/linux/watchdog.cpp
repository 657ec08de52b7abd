#include "platform/watchdog.h"

#include <systemd/sd-daemon.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>

#include "platform/log/platform-log.h"

namespace {

using std::chrono::seconds;

// The service notifies every 10 s; one late tick must not have it killed.
constexpr seconds kShortestSensibleTimeout(20);
constexpr int kKeepEnvironment = 0;

std::atomic<bool> registered{false};

int tell(const char* state)
{
    const int result = sd_notify(kKeepEnvironment, state);
    if (result >= 0) {
        return 0;
    }
    PLATFORM_LOGE("the service manager could not be told %s: %s", state, std::strerror(-result));
    errno = -result;
    return -1;
}

}  // namespace

int smart_deadlock_register_watchdog_service(int /*seconds*/)
{
    std::uint64_t microseconds = 0;
    const int expected = sd_watchdog_enabled(kKeepEnvironment, &microseconds);
    registered = expected > 0;
    if (expected < 0) {
        PLATFORM_LOGE("WATCHDOG_USEC or WATCHDOG_PID is malformed: running without a watchdog");
        return 0;
    }
    if (expected == 0) {
        PLATFORM_LOGI("the service manager set no watchdog for this process");
        return 0;
    }
    if (std::chrono::microseconds(microseconds) < kShortestSensibleTimeout) {
        PLATFORM_LOGE("the unit's WatchdogSec is %lld ms, it must be at least 20 s",
                      static_cast<long long>(microseconds / 1000));
    }
    return 0;
}

int smart_deadlock_watchdog_notify(void)
{
    return registered ? tell("WATCHDOG=1") : 0;
}

int smart_deadlock_unregister_watchdog_service(void)
{
    registered = false;
    return tell("STOPPING=1");
}
