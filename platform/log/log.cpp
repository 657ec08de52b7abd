#include "platform/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/replace-file.h"
#include "platform/log/formatted-text.h"
#include "platform/log/journal.h"

namespace quillon {
namespace {

constexpr char kLocationPrefix[] = "%s: %s(%d) > ";
constexpr std::size_t kLocationPrefixLength = sizeof kLocationPrefix - 1;

struct Level
{
    int priority;  // the platform's numbers
    int severity;  // syslog's numbers
    char letter;
};

constexpr Level kLevels[] = {{2, 7, 'V'}, {3, 7, 'D'}, {4, 6, 'I'},
                             {5, 4, 'W'}, {6, 3, 'E'}, {7, 2, 'F'}};

Level levelOf(int priority)
{
    for (const Level& level : kLevels) {
        if (level.priority == priority) {
            return level;
        }
    }
    return {priority, 6, '?'};
}

const char* orUnknown(const char* text)
{
    return text != nullptr ? text : "?";
}

/// Whoever set JOURNAL_STREAM reads the severity from a prefix; people read the letter.
void formatLine(const LogMessage& message, FormattedText& line)
{
    FormattedText place;
    if (message.file != nullptr) {
        place.format("%s: %s(%d) > ", message.file, message.function, message.line);
    }
    if (std::getenv("JOURNAL_STREAM") == nullptr) {
        line.format("%s %c %s%s\n", message.tag, message.letter, place.text(), message.text);
    } else {
        line.format("<%d>%s: %s%s\n", message.severity, message.tag, place.text(), message.text);
    }
}

bool sendToStandardError(const LogMessage& message)
{
    FormattedText line;
    formatLine(message, line);
    // A path that a client sent may hold newlines; it must not forge lines of its own.
    line.makeOneLine();

    // A pipe takes longer lines in pieces, which another thread's line could come between.
    static std::mutex oneLineAtATime;
    const std::lock_guard<std::mutex> lock(oneLineAtATime);
    return writeAll(STDERR_FILENO, line.text(), line.length());
}

}  // namespace
}  // namespace quillon

int __dlog_print(int /*buffer*/, int priority, const char* tag, const char* format, ...)
{
    using namespace quillon;
    if (format == nullptr) {
        return -1;
    }
    const int callersErrno = errno;
    const Level level = levelOf(priority);
    LogMessage message;
    message.severity = level.severity;
    message.letter = level.letter;
    message.tag = orUnknown(tag);

    va_list arguments;
    va_start(arguments, format);
    if (std::strncmp(format, kLocationPrefix, kLocationPrefixLength) == 0) {
        // The analyzer takes the list for one that was never started.
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
        message.file = orUnknown(va_arg(arguments, const char*));
        message.function = orUnknown(va_arg(arguments, const char*));
        message.line = va_arg(arguments, int);
        format += kLocationPrefixLength;
    }
    message.format = format;
    FormattedText text;
    errno = callersErrno;
    text.vformat(format, arguments);
    va_end(arguments);
    text.dropTrailingNewlines();
    message.text = text.text();

    const bool written = sendToJournal(message) || sendToStandardError(message);
    errno = callersErrno;
    return written ? static_cast<int>(text.length()) : -1;
}
