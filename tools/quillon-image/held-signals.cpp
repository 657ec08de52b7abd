#include "tools/quillon-image/held-signals.h"

#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr int kSignals[] = {SIGHUP, SIGINT, SIGTERM};

}  // namespace

HeldSignals::HeldSignals()
{
    sigemptyset(&held_);
    for (const int signal : kSignals) {
        struct sigaction action = {};
        // One that is ignored, as by nohup(1), would wait here instead of being dropped.
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&held_, signal);
        }
    }
    sigprocmask(SIG_BLOCK, &held_, &before_);
}

HeldSignals::~HeldSignals()
{
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void HeldSignals::requireNone() const
{
    sigset_t waiting;
    sigpending(&waiting);
    for (const int signal : kSignals) {
        if (sigismember(&waiting, signal) == 1) {
            throw ImageError(ImageFault::kFile, "interrupted");
        }
    }
}

}  // namespace quillon
