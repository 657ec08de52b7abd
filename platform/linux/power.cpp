#include "platform/power.h"

#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include "platform/linux/inhibitor.h"
#include "platform/linux/power-locks.h"
#include "platform/log/platform-log.h"

namespace {

quillon::PowerLocks& powerLocks()
{
    static quillon::PowerLocks locks;
    return locks;
}

}  // namespace

int device_power_lock_state(int type, int timeout_ms)
{
    if (timeout_ms <= 0) {
        PLATFORM_LOGE("a power lock of %d ms is none", timeout_ms);
        return -1;
    }
    // The new inhibitor is there before the old one goes.
    std::optional<quillon::Inhibitor> inhibitor = quillon::takeInhibitor();
    if (!inhibitor) {
        return -1;
    }
    try {
        powerLocks().hold(type, std::move(*inhibitor), std::chrono::milliseconds(timeout_ms));
        return 0;
    } catch (const std::exception& error) {
        PLATFORM_LOGE("the power lock %d cannot be kept: %s", type, error.what());
        return -1;
    }
}

int device_power_unlock_state(int type)
{
    powerLocks().release(type);
    return 0;
}
