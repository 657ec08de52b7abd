#include "interruption.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "exit-codes.h"

namespace quillon {

namespace {

// A plain bool for the registry's sake; each access is atomic, in the handler as well.
bool g_running = true;

constexpr const char* kHeld =
    "\nquillonctl: an update cannot be interrupted safely, it goes on; interrupt again to end "
    "nevertheless\n";

void endAtOnce(int /*signal*/)
{
    _exit(kExitInterrupted);
}

void on(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

void stopRunning(int signal)
{
    __atomic_store_n(&g_running, false, __ATOMIC_RELAXED);
    on(signal, endAtOnce);
}

void warn(int signal)
{
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kHeld, std::strlen(kHeld));
    on(signal, endAtOnce);
}

}  // namespace

bool& runningUntilInterrupted()
{
    on(SIGINT, stopRunning);
    return g_running;
}

void holdOffInterrupts()
{
    on(SIGINT, warn);
}

bool isInterrupted()
{
    return !__atomic_load_n(&g_running, __ATOMIC_RELAXED);
}

}  // namespace quillon
