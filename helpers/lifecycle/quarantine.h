#pragma once

#include <string>

/// Modules that end the service while they are loaded.
///
/// Which module was being loaded is told by the service's record of its start. The service's user
/// can write anything there, so of what the record names, only a regular file in the modules'
/// directory is ever touched.
namespace quillon::unit {

/// Counts the ends of the service, one after another, at which the same module was being loaded.
/// After the third, moves the module's library to paths::kQuarantine, from where nothing is loaded,
/// into the place of an earlier one of that name. The move is on the disk when this returns. Says
/// what it counts and moves, and what it cannot move. A start counts once, however often this is
/// called.
///
/// To be called when the service has ended. Needs root's rights. Throws std::system_error when the
/// count cannot be kept, and std::bad_alloc. Thread: any.
/// @param hasFailed  by what the service manager says; another end begins the count anew
void judgeStart(bool hasFailed);

/// To be called before the service starts.
/// @return one line on the module that was being loaded when the service last ended, and on those
///         in quarantine; empty for none. Throws std::bad_alloc.
std::string troubleWithModules();

}  // namespace quillon::unit
