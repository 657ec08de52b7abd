#pragma once

#include <string>
#include <vector>

namespace quillon::device {

/// Turns the caller's mount namespace into that of a device: overlays over the host's directories,
/// a /dev, /dev/shm, /dev/mqueue and /proc of its own, the service's directories present and empty,
/// its files absent. Nothing of it reaches the host.
///
/// @param workingDirectory  absolute path that stays writable as far as the caller may write it on
///                          the host, and becomes the working directory; empty when there is none
/// Needs a private mount, IPC and PID namespace and CAP_SYS_ADMIN over it.
/// @throws SetupError when the device cannot be completed; the namespace is then of no use.
void mountDevice(const std::string& workingDirectory);

/// Where something is mounted in the caller's mount namespace, sorted, each place once; empty when
/// the table cannot be read.
std::vector<std::string> mountPoints();

/// Mounts a new file system that has no source.
/// @throws SetupError
void mountNew(const char* type, const std::string& point, unsigned long flags,
              const char* options = nullptr);

/// Binds `source` with everything mounted beneath it on the existing `target`.
/// @return false with errno telling why
bool bindTree(const std::string& source, const std::string& target);

/// Makes a file, for something to be bound on.
/// @throws SetupError
void makeFile(const std::string& path);

/// Makes the mount at `point` read-only, not those beneath it. Best effort.
void makeReadOnly(const std::string& point);

/// Makes the directory `path` with the mode, and where permitted the owner, of `model`; 0755 where
/// there is no such model. An existing `path` is left alone.
/// @throws SetupError
void makeDirectoryLike(const std::string& path, const std::string& model);

}  // namespace quillon::device
