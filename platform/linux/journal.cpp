#include "journal.h"

#include <sys/uio.h>
#include <unistd.h>

#include <initializer_list>

// The fields name the place that the message comes from, not the call in this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include "formatted-text.h"
#include "message-ids.h"

namespace quillon {

namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// The same text at a lower priority is no error: a plug-in may lack its optional entries.
constexpr int kError = 3;

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
