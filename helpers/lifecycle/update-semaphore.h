#pragma once

#include <sys/types.h>

namespace quillon::unit {

/// Makes sure that the semaphore with which the control layers take turns is there and works.
/// Everybody may make it first: with a value of 0 all would wait for ever, an empty file would end
/// them by signal, and one that they may not open would have them update without taking turns.
///
/// A sound one stays: root's or the owner's, mode 0600, free. Root's is given to the owner. Any
/// other is replaced by a free one of the owner's, unless a process of root's or of the owner's has
/// it open, which may be in the middle of an update: then it stays, and that is said. Mode 0600 is
/// what the control layers give it themselves, so they run as the owner or as root.
///
/// Needs root's rights. Errors are thrown as std::system_error. Thread: any.
void provideSemaphore(uid_t owner, gid_t group);

}  // namespace quillon::unit
