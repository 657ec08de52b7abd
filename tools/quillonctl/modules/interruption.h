/// Ctrl-C while modules are checked and updated.
#ifndef QUILLON_QUILLONCTL_INTERRUPTION_H
#define QUILLON_QUILLONCTL_INTERRUPTION_H

namespace quillon {

/// From now on the first SIGINT clears the flag, and the second ends the process with
/// kExitInterrupted.
/// @return the flag, true until then, in the shape that the registry takes it
bool& runningUntilInterrupted();

/// From now on the first SIGINT only says that an update cannot be interrupted safely; the second
/// ends the process with kExitInterrupted.
void holdOffInterrupts();

/// Whether the flag has been cleared.
bool isInterrupted();

}  // namespace quillon

#endif
