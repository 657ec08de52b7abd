#pragma once

namespace quillon::device {

/// Fills the new, empty /dev: the usual nodes, loop devices, pseudo-terminals, /dev/shm and
/// /dev/mqueue. A node that the host does not have is left out.
///
/// @param hostDev  the host's /dev, open; stays the caller's
/// @throws SetupError
void fillDev(int hostDev);

}  // namespace quillon::device
