#include "platform/log/journal.h"

#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

// The fields name the place that the message comes from, not the call in this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include "platform/log/formatted-text.h"
#include "platform/log/message-ids.h"

namespace quillon {

namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// The same text at a lower priority is no error: a plug-in may lack its optional entries.
constexpr int kError = 3;

/// The library drops messages silently where there is no socket, so the socket is looked for: for
/// each message, but only once a second on a machine that has none.
bool hasJournal()
{
    static std::atomic<unsigned> missedAt{0};  // seconds, cut to what is atomic on any processor
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    const auto second = static_cast<unsigned>(now.tv_sec) | 1U << 31U;  // never 0
    if (missedAt == second) {
        return false;
    }
    const bool found = access(kJournalSocket, F_OK) == 0;
    missedAt = found ? 0 : second;
    return found;
}

iovec pieceOf(const FormattedText& field)
{
    return {const_cast<char*>(field.text()), field.length()};
}

}  // namespace

bool sendToJournal(const LogMessage& message)
{
    if (!hasJournal()) {
        return false;
    }
    FormattedText text;
    FormattedText severity;
    FormattedText tag;
    text.format("MESSAGE=%s", message.text);
    severity.format("PRIORITY=%d", message.severity);
    tag.format("SYSLOG_IDENTIFIER=%s", message.tag);
    iovec fields[7] = {pieceOf(text), pieceOf(severity), pieceOf(tag)};
    int count = 3;

    FormattedText file;
    FormattedText function;
    FormattedText line;
    if (message.file != nullptr) {
        file.format("CODE_FILE=%s", message.file);
        function.format("CODE_FUNC=%s", message.function);
        line.format("CODE_LINE=%d", message.line);
        for (const FormattedText* field : {&file, &function, &line}) {
            fields[count++] = pieceOf(*field);
        }
    }
    FormattedText id;
    const char* known =
        message.severity <= kError ? messageId(message.tag, message.format) : nullptr;
    if (known != nullptr) {
        id.format("MESSAGE_ID=%s", known);
        fields[count++] = pieceOf(id);
    }
    return sd_journal_sendv(fields, count) >= 0;
}

}  // namespace quillon
