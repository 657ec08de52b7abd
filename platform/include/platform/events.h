#ifndef QUILLON_PLATFORM_EVENTS_H
#define QUILLON_PLATFORM_EVENTS_H

#ifdef __cplusplus
extern "C" {
#endif

/// Raises a light-weight event: whoever waits for the name goes on.
///
/// @param name  the event's name, an absolute path
/// @return 0 when raised; another value, with errno telling why, when not. Thread: any.
int LwipcEventDone(const char* name);

#ifdef __cplusplus
}
#endif

#endif
