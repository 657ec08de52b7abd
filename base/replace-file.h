#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "base/secret-bytes.h"

namespace quillon {

/// Makes a directory and the directories above it. Those above get mode 0755, the directory itself
/// `mode`; a directory that is there already stays as it is.
/// @return false with errno telling why. Throws std::bad_alloc.
bool makeDirectories(const std::string& path, mode_t mode);

/// Writes all of it, however many calls that takes. A file that may grow no further (ulimit -f) is
/// an error like any other, EFBIG, and no signal.
/// @return false with errno telling why; any part may have been written then. Never throws.
bool writeAll(int fd, const void* data, std::size_t size);

/// Brings the names in a directory to the disk.
/// @return false with errno telling why, EINVAL where the file system cannot. Never throws.
bool syncDirectory(const std::string& directory);

/// Puts a file in place in one step, also where the power fails: whoever opens it sees either the
/// old contents or all of the new ones. A link of that name is replaced, never followed.
///
/// Until then the new contents are in ".NAME.new-" with six letters behind it. If a writer is
/// killed, its file stays; the next writer of the same user removes it.
/// @param directory  must exist
/// @param name    file name without "/"
/// @param mode    of the file, whatever the umask
/// @return false with errno telling why; the directory is then as it was. Throws std::bad_alloc.
bool replaceFile(const std::string& directory, const std::string& name, const SecretBytes& bytes,
                 mode_t mode = 0600);

}  // namespace quillon
