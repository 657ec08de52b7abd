#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>

#include "base/fd.h"
#include "base/secret-bytes.h"

/// Reading of files that somebody else may have put there: only regular ones. A FIFO, a directory
/// or a device is refused without waiting for it or waking it up. Thread: any.
namespace quillon {

enum class FileResult { kOk, kMissing, kNotRegular, kTooLarge, kFailed };

/// Opens a file for reading.
/// @param extraFlags   more flags for open, for example O_NOFOLLOW
/// @param[out] fd      the file on kOk, untouched otherwise
/// @param[out] opened  on kOk what the file was when it was opened, on kNotRegular what is there
///                     instead, unless that is a link that was not followed
/// @return kOk, kMissing, kNotRegular or kFailed; except on kOk and kNotRegular errno tells why.
FileResult openRegularFile(const char* path, int extraFlags, UniqueFd& fd, struct stat& opened);

/// Opens a file as an unbuffered stream: every fread is one read of its whole size.
/// @param[out] opened  on success what the file was when it was opened
/// @return an empty handle when there is no such regular file.
UniqueFile openRegularStream(const std::string& path, struct stat& opened);

/// Reads a file from its present position to its end.
/// @param limit        largest number of bytes that is accepted
/// @param[out] bytes   the contents on kOk; anything otherwise
/// @return kOk, kTooLarge or kFailed with errno telling why. Throws std::bad_alloc.
FileResult readToEnd(int fd, std::size_t limit, SecretBytes& bytes);

/// Reads a small file whole.
/// @param limit       in bytes
/// @param extraFlags  more flags for open, for example O_NOFOLLOW
/// @return nothing when there is no such regular file, it cannot be read, or it is larger.
/// Throws std::bad_alloc.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit,
                                           int extraFlags = 0);

/// Whether a path still names that very file, unchanged: device, inode, size, and the times of the
/// last change of its contents and of its inode.
bool isStillSameFile(const std::string& path, const struct stat& opened);

}  // namespace quillon
