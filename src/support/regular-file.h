#ifndef QUILLON_SUPPORT_REGULAR_FILE_H
#define QUILLON_SUPPORT_REGULAR_FILE_H

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>

#include "support/unique-handles.h"

namespace quillon {

/// Opens a file for reading ("rb"), but only a regular one: a FIFO, a directory or a device on a
/// stick is refused without ever waiting for it or waking it up. Links are followed. The stream is
/// unbuffered: every fread is one read of its whole size.
///
/// @param opened  on success what the file was when it was opened
/// @return an empty handle when there is no such regular file.
UniqueFile openRegularFile(const std::string& path, struct stat& opened);

/// Reads a small file whole, by the same rules.
///
/// @param limit  in bytes
/// @return nothing when there is no such regular file, it cannot be read, or it is larger.
/// Throws std::bad_alloc.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit);

/// Whether a path still names that very file, unchanged: device, inode, size, and the times of the
/// last change of its contents and of its inode.
bool isStillSameFile(const std::string& path, const struct stat& opened);

}  // namespace quillon

#endif
