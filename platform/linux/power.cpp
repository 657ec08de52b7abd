#include "platform/power.h"

#include "once.h"
#include "platform-log.h"

int device_power_lock_state(int /*type*/, int /*timeout_ms*/)
{
    static quillon::Once said;
    if (said.first()) {
        PLATFORM_LOGI("there is no power lock on this platform yet: updates run without one");
    }
    return -1;
}

int device_power_unlock_state(int /*type*/)
{
    return 0;  // none is ever held
}
