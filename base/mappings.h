#ifndef QUILLON_BASE_MAPPINGS_H
#define QUILLON_BASE_MAPPINGS_H

#include <sys/stat.h>
#include <sys/types.h>

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

}  // namespace quillon

#endif
