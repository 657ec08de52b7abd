#ifndef QUILLON_TOOLS_QUILLON_IMAGE_HELD_SIGNALS_H
#define QUILLON_TOOLS_QUILLON_IMAGE_HELD_SIGNALS_H

#include <csignal>

namespace quillon {

/// Keeps SIGHUP, SIGINT and SIGTERM back while it lives, so that what is temporary is removed
/// before one of them ends the process. Declare it before what is to be removed. Programs that run
/// meanwhile do not inherit it: an interruption from the terminal ends them at once.
/// Thread: the one that made it; meant for a program with no other.
class HeldSignals
{
public:
    HeldSignals();
    ~HeldSignals();  ///< a signal that came meanwhile takes effect here
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    /// To be called now and then during long work.
    /// @throws ImageError with ImageFault::kFile when one of the signals is waiting.
    void requireNone() const;

private:
    sigset_t held_{};
    sigset_t before_{};
};

}  // namespace quillon

#endif
