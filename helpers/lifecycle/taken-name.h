#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

/// Names in a directory that everybody may write to, such as /tmp, taken from whoever has them.
///
/// Each function needs root's rights and works in one step: there is no moment at which somebody
/// who watches the name could put something else there. What stood there before is removed; a
/// directory with something in it is left, out of its owner's reach, in a directory .quillon-XXXXXX
/// beside. Errors are thrown as std::system_error, whose what() is one line. Thread: any.
namespace quillon::unit {

/// Puts a file there, with exactly that mode.
void putFile(const std::string& path, uid_t owner, gid_t group, mode_t mode = 0644,
             std::string_view content = "");

/// Puts a link there that leads nowhere: the file does not exist for whoever asks, and nobody but
/// the owner and root can make it.
/// @param target  what does not exist
void putDeadLink(const std::string& path, const std::string& target, uid_t owner, gid_t group);

/// Takes whatever is there away; nothing there is fine.
void clear(const std::string& path);

}  // namespace quillon::unit
