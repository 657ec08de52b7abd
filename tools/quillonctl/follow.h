#pragma once

#include <chrono>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/output.h"

namespace quillon {

/// Follows the service's running update to its end by the service's records alone. The service is
/// asked nothing, so any number of programs can do this beside the one that has started the update.
/// @param pollInterval  how often the records are read
/// @return kExitSuccess when nothing was running, or when the update has finished;
///         kExitUpdateFailed when it has failed. Throws Failure.
ExitCode followUpdate(Output& output, std::chrono::milliseconds pollInterval);

}  // namespace quillon
