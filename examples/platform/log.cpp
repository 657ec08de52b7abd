// The log goes to syslog, and to standard error, where an init script may keep it.

#include "platform/log.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "platform/trace.h"

namespace {

constexpr std::size_t kLongestMessage = 2048;

int severityOf(int priority)
{
    switch (priority) {
        case 3:
            return LOG_DEBUG;
        case 4:
            return LOG_INFO;
        default:
            return LOG_ERR;
    }
}

// A message may hold a version or a path from outside, which must not forge a line of its own.
void makeOneLine(char* text)
{
    for (; *text != '\0'; ++text) {
        if (static_cast<unsigned char>(*text) < ' ') {
            *text = ' ';
        }
    }
}

struct SystemLog
{
    SystemLog() { openlog("quillon-service", LOG_PID | LOG_PERROR, LOG_DAEMON); }
};

}  // namespace

int __dlog_print(int /*buffer*/, int priority, const char* tag, const char* format, ...)
{
    const int error = errno;  // "%m" means the one of the call
    static const SystemLog opened;
    if (format == nullptr) {
        return -1;
    }

    char text[kLongestMessage];
    va_list arguments;
    va_start(arguments, format);
    errno = error;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not see va_start
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    makeOneLine(text);
    syslog(severityOf(priority), "%s: %s", tag == nullptr ? "" : tag, text);
    return 0;
}

// The log has said it already.
int trace_logger_write(int /*priority*/, const char* /*tag*/, const char* /*file*/,
                       const char* /*function*/, int /*line*/, const char* /*format*/, ...)
{
    return 0;
}
