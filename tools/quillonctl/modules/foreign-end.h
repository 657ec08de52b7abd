/// Modules that end the program, which is not theirs.
#ifndef QUILLON_QUILLONCTL_FOREIGN_END_H
#define QUILLON_QUILLONCTL_FOREIGN_END_H

#include <functional>
#include <string>

namespace quillon {

/// From now on an exit() that is not the program's own calls `onEnd`, on the thread that made it,
/// which must end the process. A crash gives the update semaphore back, says so, and stays a crash.
/// Neither concerns the processes that a module forks.
///
/// To be called once, after the registry's only object was made and before a module is loaded.
/// @param onEnd  gets who it was: "the module tuner", or "a module" when that cannot be told
void watchForForeignEnd(std::function<void(const std::string& who)> onEnd);

/// What ends the process from now on is the program's own.
void endIsOurs();

}  // namespace quillon

#endif
