/// The locks that other processes have on a file, without a try to take one.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>

namespace quillon {

/// By the kernel's list.
/// @return the number of the process that has taken a lock of the kind that flock() takes; 0 when
///         it is not known; nothing when nobody has one, or when the list does not show it: then
///         it was taken in another container, or lies on a file system that gives the file another
///         device number
std::optional<pid_t> flockHolder(const struct stat& file);

}  // namespace quillon
