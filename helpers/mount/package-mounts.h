#pragma once

#include <string>

#include "helpers/mount/policy.h"

namespace quillon::privileged {

/// Mounts an image read-only on an existing directory. Image and directory are opened once, without
/// following links, and what was opened is what is mounted. No link in the package is followed, no
/// device node of it works, no program of it can be started.
/// @throws Failure, with ENOTSUP where the kernel would follow links, with EBUSY when the directory
///         has something mounted from a loop device already: two clients that each mount and
///         unmount would otherwise pile packages up on it
void mountPackage(const MountOrder& order);

/// Unmounts what lies topmost on a directory of kMountDirectory, if it comes from a loop device.
/// @throws Failure, with EINVAL when there is no such mount
void unmountPackage(const std::string& directory);

}  // namespace quillon::privileged
