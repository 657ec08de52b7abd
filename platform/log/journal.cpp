#include "platform/log/journal.h"

#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <iterator>

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

}  // namespace

bool sendToJournal(const LogMessage& message)
{
    if (!hasJournal()) {
        return false;
    }
    FormattedText fields[7];
    int count = 0;
    fields[count++].format("MESSAGE=%s", message.text);
    fields[count++].format("PRIORITY=%d", message.severity);
    fields[count++].format("SYSLOG_IDENTIFIER=%s", message.tag);
    if (message.file != nullptr) {
        fields[count++].format("CODE_FILE=%s", message.file);
        fields[count++].format("CODE_FUNC=%s", message.function);
        fields[count++].format("CODE_LINE=%d", message.line);
    }
    const char* id = message.severity <= kError ? messageId(message.tag, message.format) : nullptr;
    if (id != nullptr) {
        fields[count++].format("MESSAGE_ID=%s", id);
    }
    iovec pieces[std::size(fields)] = {};
    for (int i = 0; i < count; ++i) {
        pieces[i] = {const_cast<char*>(fields[i].text()), fields[i].length()};
    }
    return sd_journal_sendv(pieces, count) >= 0;
}

}  // namespace quillon
