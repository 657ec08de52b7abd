#ifndef QUILLON_PLATFORM_LINUX_INHIBITOR_H
#define QUILLON_PLATFORM_LINUX_INHIBITOR_H

#include "files.h"

namespace quillon {

/// Asks logind to keep the machine from shutting down, suspending and acting on idleness.
/// @return the descriptor that keeps it so until it is closed; none when logind is not there,
///         refuses, or does not answer within five seconds, or when this build knows no logind: one
///         log line says which.
/// Thread: any. Never throws.
UniqueFd takeInhibitor();

}  // namespace quillon

#endif
