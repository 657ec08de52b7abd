#pragma once

#include <string>

namespace quillon::unit {

/// Makes sure that every client can take turns at the lock file: it is there, root's, one file with
/// one name, and open to everybody. A file of somebody else's that everybody can open already
/// becomes root's where it lies, and who has locked it keeps the lock; with a new file in its
/// place, two clients could each hold one. What is no file, has a second name or another mode is
/// replaced, but not while somebody holds it: that is said. No file is opened to anybody who could
/// not open it.
///
/// Needs root's rights. Errors are thrown as std::system_error. Thread: any.
void provideClientLock(const std::string& path);

}  // namespace quillon::unit
