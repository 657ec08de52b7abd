#pragma once

#include <signal.h>

namespace quillon {

using SignalHandler = void (*)(int);

/// From now on the signal calls the handler, or does what SIG_DFL or SIG_IGN says. What the signal
/// interrupts goes on. Safe in a signal handler.
inline void onSignal(int signal, SignalHandler handler)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

/// @return the handler, SIG_DFL or SIG_IGN; SIG_ERR when there is no such signal
inline SignalHandler handlerOf(int signal)
{
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 ? action.sa_handler : SIG_ERR;
}

}  // namespace quillon
