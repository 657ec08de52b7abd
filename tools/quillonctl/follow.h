#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/output.h"

namespace quillon {

/// Who updates without a record, for people; empty for nobody.
/// @param[out] trouble  why that cannot be told, for people; empty when it can
using FindUpdater = std::function<std::string(std::string& trouble)>;

/// Follows the running update of the service, or else of a control layer, to its end by its records
/// alone. Nobody is asked anything, so any number of programs can do this beside the one that has
/// started the update.
/// @param pollInterval  how often the records are read
/// @return kExitSuccess when nothing was running, or when the update has finished;
///         otherwise as UpdateReport::ended(). Throws Failure.
ExitCode followUpdate(Output& output, std::chrono::milliseconds pollInterval,
                      const FindUpdater& updater);

}  // namespace quillon
