#pragma once

#include <cerrno>
#include <cstdio>

#include "platform/log.h"

// A line of the platform library itself, with the tag "QUILLON-PLATFORM". The message is a string
// literal in printf format, checked against its arguments when compiled; the arguments are
// evaluated once. Thread: any. Never throws. Leaves errno as it was; "%m" works.
#define PLATFORM_LOGI(...) PLATFORM_LOG(4, __VA_ARGS__)
#define PLATFORM_LOGE(...) PLATFORM_LOG(6, __VA_ARGS__)

// __extension__ because "%m" is the C library's own, which -Wpedantic minds.
#define PLATFORM_LOG(priority, ...)                                                           \
    do {                                                                                      \
        static_cast<void>(__extension__ sizeof(std::printf(__VA_ARGS__)));                    \
        ::quillon::logPlatform(priority, __FILE_NAME__, static_cast<const char*>(__func__),   \
                               __LINE__, PLATFORM_LOG_PREFIXED(__VA_ARGS__, 0), __VA_ARGS__); \
    } while (false)

#define PLATFORM_LOG_PREFIXED(message, ...) "%s: %s(%d) > " message

namespace quillon {

/// Behind the macros only. `prefixed` is the message behind the place in the code: the log knows a
/// message by its format, so the text is not made before it gets there.
template <typename... Arguments>
void logPlatform(int priority, const char* file, const char* function, int line,
                 const char* prefixed, const char* /*message*/, Arguments... arguments)
{
    constexpr int kSystemLog = 2;
    const int callersErrno = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    __dlog_print(kSystemLog, priority, "QUILLON-PLATFORM", prefixed, file, function, line,
                 arguments...);
#pragma GCC diagnostic pop
    errno = callersErrno;
}

}  // namespace quillon
