#ifndef QUILLON_PLATFORM_SYSTEM_INFO_H
#define QUILLON_PLATFORM_SYSTEM_INFO_H

#ifdef __cplusplus
extern "C" {
#endif

/// Reads one text about the device.
///
/// @param key    128: the software version, MODEL-VERSION. The service cuts it at the last "-".
/// @param value  receives a NUL-terminated text that the caller releases with free(); untouched
///               on failure
/// @return 0 on success, another value on failure. Thread: any.
int system_info_get_value_string(int key, char** value);

#ifdef __cplusplus
}
#endif

#endif
