/// What happens when somebody presses Ctrl-C.
#ifndef QUILLON_QUILLONCTL_INTERRUPT_H
#define QUILLON_QUILLONCTL_INTERRUPT_H

namespace quillon {

/// From now on SIGINT writes `line` to standard error and ends the process with kExitInterrupted,
/// whatever it is waiting for.
/// @param line  lives as long as the process
void onInterruptSay(const char* line);

}  // namespace quillon

#endif
