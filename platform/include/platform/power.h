#ifndef QUILLON_PLATFORM_POWER_H
#define QUILLON_PLATFORM_POWER_H

#ifdef __cplusplus
extern "C" {
#endif

/// Keeps the device from being switched off or suspended.
///
/// There is one lock a type. A second one replaces the first and has a time of its own, without a
/// gap between the two; when the second fails, the first stays for the rest of its time.
/// @param type        kind of lock; the registry always passes 2
/// @param timeout_ms  milliseconds after which the lock ends by itself; 0 or less is a failure
/// @return 0 when locked, another value when not; the registry goes on either way. Thread: any.
int device_power_lock_state(int type, int timeout_ms);

/// Ends the lock of that type; with none held it does nothing.
/// @return 0 when no lock of the type is held any more. Thread: any.
int device_power_unlock_state(int type);

#ifdef __cplusplus
}
#endif

#endif
