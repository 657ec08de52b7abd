#include "journal.h"

#include <sys/uio.h>
#include <unistd.h>

// The fields name the place that the message comes from, not the call in this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include "formatted-text.h"

namespace quillon {

namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

iovec pieceOf(const FormattedText& field)
{
    return {const_cast<char*>(field.text()), field.length()};
}

}  // namespace

bool sendToJournal(const LogMessage& message)
{
    // The library drops messages silently where there is no socket, so the socket is looked for.
    if (access(kJournalSocket, F_OK) != 0) {
        return false;
    }
    FormattedText text;
    FormattedText severity;
    FormattedText tag;
    text.format("MESSAGE=%s", message.text);
    severity.format("PRIORITY=%d", message.severity);
    tag.format("SYSLOG_IDENTIFIER=%s", message.tag);
    if (message.file == nullptr) {
        const iovec fields[] = {pieceOf(text), pieceOf(severity), pieceOf(tag)};
        return sd_journal_sendv(fields, 3) >= 0;
    }
    FormattedText file;
    FormattedText function;
    FormattedText line;
    file.format("CODE_FILE=%s", message.file);
    function.format("CODE_FUNC=%s", message.function);
    line.format("CODE_LINE=%d", message.line);
    const iovec fields[] = {pieceOf(text), pieceOf(severity), pieceOf(tag),
                            pieceOf(file), pieceOf(function), pieceOf(line)};
    return sd_journal_sendv(fields, 6) >= 0;
}

}  // namespace quillon
