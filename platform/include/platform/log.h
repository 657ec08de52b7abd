#ifndef QUILLON_PLATFORM_LOG_H
#define QUILLON_PLATFORM_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/// Writes one message to the platform's log.
///
/// @param buffer    which log; the service always passes 2 (system)
/// @param priority  3 debug, 4 info, 6 error
/// @param tag       short name of the program part, NUL-terminated; the service passes "FWUPDATE"
/// @param format    printf format. The service's messages begin with "%s: %s(%d) > ", filled with
///                  source file, function and line, so a log may take these three as fields.
///                  "%m" stands for errno as it is at the call.
/// @return a value of 0 or more when written; the service ignores it.
/// Ownership: nothing is kept after the call. Thread: any. errno may be changed.
int __dlog_print(int buffer, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
