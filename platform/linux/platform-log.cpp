#include "platform-log.h"

#include <cerrno>
#include <cstdarg>

#include "formatted-text.h"
#include "platform/log.h"

namespace quillon {

void logPlatform(int priority, const char* file, const char* function, int line, const char* format,
                 ...)
{
    constexpr int kSystemLog = 2;
    const int callersErrno = errno;
    FormattedText message;
    va_list arguments;
    va_start(arguments, format);
    message.vformat(format, arguments);
    va_end(arguments);
    __dlog_print(kSystemLog, priority, "QUILLON-PLATFORM", "%s: %s(%d) > %s", file, function, line,
                 message.text());
    errno = callersErrno;
}

}  // namespace quillon
