#pragma once

#include <string>

namespace quillon::device {

/// Puts a private writable layer over each of privateTops(), in which the service's directories are
/// present. What the host has in them shows through, and is for the caller to cover.
///
/// @param workingDirectory  made writable, too, if it lies in one of them
/// @param stage             an empty directory on a private file system, which keeps the layers; it
///                          may be unmounted lazily afterwards
/// @throws SetupError
void mountPrivateDirectories(const std::string& workingDirectory, const std::string& stage);

}  // namespace quillon::device
