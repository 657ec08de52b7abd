#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/output.h"

namespace quillon {

/// Follows the running update of the service, or else of a control layer, to its end by its records
/// alone. Nobody is asked anything, so any number of programs can do this beside the one that has
/// started the update.
/// @param pollInterval  how often the records are read
/// @param updater       who updates without a record, for people; empty for nobody
/// @return kExitSuccess when nothing was running, or when the update has finished;
///         otherwise as UpdateReport::ended(). Throws Failure.
ExitCode followUpdate(Output& output, std::chrono::milliseconds pollInterval,
                      const std::function<std::string()>& updater);

}  // namespace quillon
