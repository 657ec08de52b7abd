#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <istream>
#include <optional>

namespace quillon {

enum class Mapping {
    kNone,   ///< it has not mapped the file, or it has ended
    kHas,    ///< it has mapped the file
    kHidden  ///< this user may not look into it, or it changes faster than it can be looked at
};

/// Whether a process has a file in its memory. One whose main thread has ended is looked at through
/// the threads that are left.
/// @param file  what fstat tells about the file
/// Thread: any. Throws std::bad_alloc.
Mapping mappingOf(pid_t process, const struct stat& file);

/// The same in an opened /proc/PID/task/TID/maps.
/// @return nothing when the thread has no memory any more, or never had: it has ended, maybe since
///         the file was opened, or is one of the kernel's. That tells nothing about the other
///         threads of its process.
std::optional<Mapping> mappingIn(std::istream& maps, const struct stat& file);

}  // namespace quillon
