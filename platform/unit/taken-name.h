#ifndef QUILLON_PLATFORM_UNIT_TAKEN_NAME_H
#define QUILLON_PLATFORM_UNIT_TAKEN_NAME_H

#include <sys/types.h>

#include <string>

/// Names in a folder that everybody may write to, such as /tmp, taken from whoever has them.
///
/// Each function needs root's rights and works in one step: there is no moment at which somebody
/// who watches the name could put something else there. What stood there before is removed; a
/// folder with something in it is left, out of its owner's reach, in a folder .quillon-XXXXXX
/// beside. Errors are thrown as std::system_error, whose what() is one line. Thread: any.
namespace quillon::unit {

/// Puts an empty file, mode 0644, there.
void putFile(const std::string& path, uid_t owner, gid_t group);

/// Puts a link of root's that leads nowhere there: the file does not exist for whoever asks, and
/// nobody else can make it.
void putDeadLink(const std::string& path);

/// Takes whatever is there away; nothing there is fine.
void clear(const std::string& path);

}  // namespace quillon::unit

#endif
