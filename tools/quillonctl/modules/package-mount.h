/// The packages that checks and updates leave mounted.
#ifndef QUILLON_QUILLONCTL_PACKAGE_MOUNT_H
#define QUILLON_QUILLONCTL_PACKAGE_MOUNT_H

#include "src/src/fw-update-symbol.h"

namespace quillon {

/// Unmounts the module's package if it is mounted.
/// @return false when it stays mounted
bool releasePackage(FWUpdateSymbol& module);

}  // namespace quillon

#endif
