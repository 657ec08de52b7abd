#ifndef QUILLON_PLATFORM_LINUX_PLATFORM_LOG_H
#define QUILLON_PLATFORM_LINUX_PLATFORM_LOG_H

namespace quillon {

/// Writes a line of the platform library itself, with the tag "QUILLON-PLATFORM".
/// @param priority  as for __dlog_print
/// Thread: any. Never throws. Leaves errno as it was; "%m" works.
void logPlatform(int priority, const char* file, const char* function, int line, const char* format,
                 ...) __attribute__((format(printf, 5, 6)));

}  // namespace quillon

// __extension__ because "%m" is the C library's own, which -Wpedantic minds.
#define PLATFORM_LOG(priority, ...)       \
    __extension__ ::quillon::logPlatform( \
        priority, __FILE_NAME__, static_cast<const char*>(__func__), __LINE__, __VA_ARGS__)
#define PLATFORM_LOGI(...) PLATFORM_LOG(4, __VA_ARGS__)
#define PLATFORM_LOGE(...) PLATFORM_LOG(6, __VA_ARGS__)

#endif
