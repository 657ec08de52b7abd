#ifndef QUILLON_PLATFORM_TRACE_H
#define QUILLON_PLATFORM_TRACE_H

#ifdef __cplusplus
extern "C" {
#endif

/// Hands one message, with the place in the code that it comes from, to the platform's trace.
///
/// Called right after __dlog_print with the same priority, tag, message and errno.
/// @param priority  3 debug, 4 info, 6 error
/// @param file      base name of the source file
/// @param function  name of the function
/// @param line      line in the file
/// @param format    printf format of the message, without the log's code-location prefix
/// @return a value of 0 or more when taken; the service ignores it.
/// Ownership: nothing is kept after the call. Thread: any. errno may be changed.
int trace_logger_write(int priority, const char* tag, const char* file, const char* function,
                       int line, const char* format, ...) __attribute__((format(printf, 6, 7)));

#ifdef __cplusplus
}
#endif

#endif
