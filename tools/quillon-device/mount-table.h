#ifndef QUILLON_TOOLS_QUILLON_DEVICE_MOUNT_TABLE_H
#define QUILLON_TOOLS_QUILLON_DEVICE_MOUNT_TABLE_H

#include <string>
#include <vector>

namespace quillon::device {

/// Where something is mounted in the caller's mount namespace, sorted, each place once; empty when
/// the table cannot be read.
std::vector<std::string> mountPoints();

}  // namespace quillon::device

#endif  // QUILLON_TOOLS_QUILLON_DEVICE_MOUNT_TABLE_H
