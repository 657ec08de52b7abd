// No watchdog. Registering must not fail for that: without a registration the service does not look
// at its life marker either. The service notifies every 10 s.

#include "platform/watchdog.h"

int smart_deadlock_register_watchdog_service(int /*seconds*/)
{
    return 0;
}

int smart_deadlock_watchdog_notify(void)
{
    return 0;
}

int smart_deadlock_unregister_watchdog_service(void)
{
    return 0;
}
