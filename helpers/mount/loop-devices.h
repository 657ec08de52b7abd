#pragma once

#include <string>

#include "base/fd.h"

namespace quillon::privileged {

/// A loop device that shows an image. It lets go of the image by itself when nothing is mounted
/// from it and `device` is closed.
struct LoopDevice
{
    std::string node;  ///< "/dev/loopN"
    UniqueFd device;
};

/// Puts an image on a free loop device, read-only. Only nodes that exist in /dev are taken: the
/// client makes the missing ones, with requests of their own.
/// @param image  open for reading; stays the caller's
/// @throws Failure, with ENODEV when every node is in use
LoopDevice attachLoopDevice(const UniqueFd& image);

/// Makes the node of a loop device, mode 0660, with the label "*" where the kernel knows labels.
/// @param number  below kLoopNodes
/// @throws Failure, with EEXIST when there is something of that name
void makeLoopNode(unsigned number);

}  // namespace quillon::privileged
