#ifndef QUILLON_PLATFORM_WATCHDOG_H
#define QUILLON_PLATFORM_WATCHDOG_H

#ifdef __cplusplus
extern "C" {
#endif

/// Puts the process under the dead-lock watchdog.
/// @param seconds  the longest time between two notifications
/// @return 0 when registered. A machine without a watchdog is no failure. Thread: any.
int smart_deadlock_register_watchdog_service(int seconds);

/// Tells the watchdog that the process is alive.
/// @return 0 when told. Thread: any.
int smart_deadlock_watchdog_notify(void);

/// Takes the process out of the watchdog's care; not being registered is no failure.
/// @return 0 on success. Thread: any.
int smart_deadlock_unregister_watchdog_service(void);

#ifdef __cplusplus
}
#endif

#endif
