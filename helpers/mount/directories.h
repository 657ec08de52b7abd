#ifndef QUILLON_HELPERS_MOUNT_DIRECTORIES_H
#define QUILLON_HELPERS_MOUNT_DIRECTORIES_H

#include <string>

#include "base/fd.h"

namespace quillon::privileged {

/// Opens a directory (O_PATH) without following a symbolic link anywhere on the way. What is
/// mounted on the way, or on the directory itself, is entered.
/// @param path  absolute, without "." and ".."
/// @throws Failure, for a link with ENOTDIR
UniqueFd openDirectory(const std::string& path);

/// The same for one name in an open directory.
/// @param name  without "/"
UniqueFd openDirectoryIn(int parent, const std::string& name);

/// Opens a regular file with a single name for reading; anything else is left untouched.
/// @param name  without "/"
/// @throws Failure, for a link, a device or a FIFO with EINVAL, for a hard link with EMLINK, for a
///         file on which somebody holds a write lease with EWOULDBLOCK
UniqueFd openImageIn(int parent, const std::string& name);

/// A path that names the open file itself, whatever becomes of its name.
std::string pathOf(const UniqueFd& file);

}  // namespace quillon::privileged

#endif
