#ifndef QUILLON_TOOLS_QUILLON_DEVICE_DEVICE_DEV_H
#define QUILLON_TOOLS_QUILLON_DEVICE_DEVICE_DEV_H

namespace quillon::device {

/// Fills the new, empty /dev: the usual nodes, loop devices, pseudo-terminals, /dev/shm and
/// /dev/mqueue. A node that the host does not have is left out.
///
/// @param hostDev  the host's /dev, open; stays the caller's
/// @throws SetupError
void fillDev(int hostDev);

}  // namespace quillon::device

#endif  // QUILLON_TOOLS_QUILLON_DEVICE_DEVICE_DEV_H
