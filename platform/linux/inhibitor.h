#pragma once

#include <array>
#include <optional>

#include "base/fd.h"

namespace quillon {

/// Keeps the machine from shutting down, suspending and acting on idleness until it is destroyed:
/// one descriptor of logind's for each of the three.
using Inhibitor = std::array<UniqueFd, 3>;

/// Asks logind for all three.
/// @return nothing when logind is not there, refuses one of them, or does not answer within five
///         seconds, or when this build knows no logind: one log line says which.
/// Thread: any. Never throws.
std::optional<Inhibitor> takeInhibitor();

}  // namespace quillon
