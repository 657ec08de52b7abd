#include "platform/trace.h"

#include <cerrno>
#include <cstdarg>

#define _SDT_HAS_SEMAPHORES 1
#include <sys/sdt.h>

#include "platform/log/formatted-text.h"

// Whoever attaches to the probe counts this up from outside of the program; the name is given by
// the probe's provider and name.
extern "C" {
extern volatile unsigned short quillon_log_semaphore;
__attribute__((section(".probes"),
               visibility("hidden"))) volatile unsigned short quillon_log_semaphore = 0;
}

int trace_logger_write(int priority, const char* tag, const char* file, const char* function,
                       int line, const char* format, ...)
{
    if (quillon_log_semaphore == 0) {
        return 0;
    }
    if (format == nullptr) {
        return -1;
    }
    const int callersErrno = errno;
    quillon::FormattedText message;
    va_list arguments;
    va_start(arguments, format);
    message.vformat(format, arguments);
    va_end(arguments);
    STAP_PROBE6(quillon, log, priority, tag, file, function, line, message.text());
    errno = callersErrno;
    return 0;
}
