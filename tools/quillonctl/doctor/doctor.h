/// "quillonctl doctor": what would go wrong.
#pragma once

#include "tools/quillonctl/doctor/finding.h"
#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/output.h"

namespace quillon::doctor {

/// Makes all checks, the worst finding first.
Findings examine();

/// Makes all checks and says what they have found.
/// @return kExitFoundErrors, kExitFoundWarnings, or kExitSuccess with notes at most
ExitCode run(Output& output);

}  // namespace quillon::doctor
