/// How quillonctl ends. Scripts rely on these numbers; quillonctl(1) documents them.
#pragma once

#include <string>

namespace quillon {

enum ExitCode : int {
    kExitSuccess = 0,
    kExitUsage = 2,
    kExitNoService = 3,
    kExitNoReply = 4,
    kExitBusy = 5,
    kExitUpdateFailed = 6,
    kExitNothingToUpdate = 7,
    kExitAlreadyUpdating = 8,
    kExitSystem = 9,
    kExitUnknownModule = 10,
    kExitUnusableModule = 11,
    kExitNoAnswer = 12,
    kExitTimedOut = 13,
    kExitDownloadFailed = 14,
    kExitFoundWarnings = 20,
    kExitFoundErrors = 21,
    kExitInterrupted = 130
};

/// Thrown where a verb cannot go on. Whoever has started the verb reports it as an error.
struct Failure
{
    ExitCode code;
    std::string text;  ///< one line for people
};

}  // namespace quillon
