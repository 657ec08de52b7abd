#pragma once

namespace quillon {

/// One log message taken to pieces. All texts are NUL-terminated and belong to the caller.
struct LogMessage
{
    int severity = 6;   ///< as syslog counts: 2 critical, 3 error ... 7 debug
    char letter = '?';  ///< the same for people: F, E, W, I, D, V
    const char* tag = "";
    const char* file = nullptr;      ///< null when the message came without a place in the code
    const char* function = nullptr;  ///< null exactly when file is
    int line = 0;
    const char* format = "";  ///< what the text was made from, without the place in the code
    const char* text = "";    ///< without newline at the end
};

/// Hands a message with its fields to the journal.
/// @return true when the journal took it; false when it refused, or when there is no journal on
///         this machine, or was none a second ago: the message then belongs on standard error.
/// Thread: any. Never throws. errno may be changed.
bool sendToJournal(const LogMessage& message);

}  // namespace quillon
