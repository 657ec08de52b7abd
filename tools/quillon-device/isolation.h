#pragma once

#include <optional>
#include <string>

#include "tools/quillon-device/init.h"

namespace quillon::device {

/// How a device is kept apart from the host.
enum class Way {
    kRoot,  ///< private mount, IPC and PID namespaces
    kUser,  ///< the same inside a user namespace
};

/// The way's name as options and QUILLON_DEVICE have it: "root" or "user".
const char* nameOf(Way way);

/// Runs the command in a device of its own and waits for its end. Everything that was started in
/// the device has ended, too, when this returns, and dies with the caller. Needs takeSignals().
///
/// @param command      without arguments nothing is run: it is tried whether a device could be set
///                     up in this way
/// @param[out] reason  why the device could not be set up, one line
/// @return the exit status, or nothing when the device could not be set up; nothing has run then
/// @throws SetupError when no way of isolation could do it: from this working directory
std::optional<int> runIsolated(Way way, const Command& command, std::string& reason);

}  // namespace quillon::device
