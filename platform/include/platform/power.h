#ifndef QUILLON_PLATFORM_POWER_H
#define QUILLON_PLATFORM_POWER_H

#ifdef __cplusplus
extern "C" {
#endif

/// Keeps the device from being switched off or suspended.
///
/// @param type        kind of lock; the registry always passes 2
/// @param timeout_ms  milliseconds after which the lock ends by itself
/// @return 0 when locked, another value when not; the registry goes on either way. Thread: any.
int device_power_lock_state(int type, int timeout_ms);

/// Ends the lock of that type; with none held it does nothing.
/// @return 0 when no lock of the type is held any more. Thread: any.
int device_power_unlock_state(int type);

#ifdef __cplusplus
}
#endif

#endif
