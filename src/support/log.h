#pragma once

#include <cerrno>
#include <cstdio>

#include "platform/log.h"
#include "platform/trace.h"

/// One log statement: to the platform's log, and a second time to its trace.
///
/// The message is a string literal in printf format. It is checked against its arguments when
/// compiled; the arguments are evaluated once, and both receivers see the errno of the call, so
/// that "%m" means the same in both. errno is as before afterwards. Thread: any.
#define FW_LOGD(...) QUILLON_LOG(quillon::log::kDebug, __VA_ARGS__)
#define FW_LOGI(...) QUILLON_LOG(quillon::log::kInfo, __VA_ARGS__)
#define FW_LOGE(...) QUILLON_LOG(quillon::log::kError, __VA_ARGS__)

// "%m" is the C library's own, which is what -Wpedantic has against it.
#define QUILLON_LOG(priority, ...)                                                          \
    do {                                                                                    \
        static_cast<void>(__extension__ sizeof(std::printf(__VA_ARGS__)));                  \
        quillon::log::write(priority, quillon::log::baseName(__FILE__), __func__, __LINE__, \
                            QUILLON_LOG_PREFIXED(__VA_ARGS__, 0), __VA_ARGS__);             \
    } while (false)

#define QUILLON_LOG_PREFIXED(message, ...) "%s: %s(%d) > " message

namespace quillon::log {

inline constexpr int kSystemBuffer = 2;
inline constexpr const char* kTag = "FWUPDATE";

inline constexpr int kDebug = 3;
inline constexpr int kInfo = 4;
inline constexpr int kError = 6;

/// The part of a path after its last "/".
constexpr const char* baseName(const char* path)
{
    const char* name = path;
    for (const char* at = path; *at != '\0'; ++at) {
        if (*at == '/') {
            name = at + 1;
        }
    }
    return name;
}

/// Behind the macros only. `prefixed` is `message` behind the code-location prefix.
template <typename... Arguments>
void write(int priority, const char* file, const char* function, int line, const char* prefixed,
           const char* message, Arguments... arguments)
{
    const int error = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    __dlog_print(kSystemBuffer, priority, kTag, prefixed, file, function, line, arguments...);
    errno = error;
    trace_logger_write(priority, kTag, file, function, line, message, arguments...);
#pragma GCC diagnostic pop
    errno = error;
}

}  // namespace quillon::log
