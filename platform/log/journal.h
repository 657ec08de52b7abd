#ifndef QUILLON_PLATFORM_LOG_JOURNAL_H
#define QUILLON_PLATFORM_LOG_JOURNAL_H

#include "platform/log/log-message.h"

namespace quillon {

/// Hands a message with its fields to the journal.
/// @return true when the journal took it; false when there is no journal on this machine, or was
/// none a second ago, when this
///         build knows none, or when it refused: the message then belongs on standard error.
/// Thread: any. Never throws. errno may be changed.
bool sendToJournal(const LogMessage& message);

}  // namespace quillon

#endif
