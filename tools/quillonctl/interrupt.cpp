#include "tools/quillonctl/interrupt.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "tools/quillonctl/exit-codes.h"

namespace quillon {

namespace {

std::atomic<const char*> g_line{""};
static_assert(std::atomic<const char*>::is_always_lock_free, "it is read in a signal handler");

void put(const char* text)
{
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
}

void handleInterrupt(int /*signal*/)
{
    put("\nquillonctl: ");
    put(g_line);
    put("\n");
    _exit(kExitInterrupted);
}

}  // namespace

void onInterruptSay(const char* line)
{
    g_line = line;
    struct sigaction action = {};
    action.sa_handler = handleInterrupt;
    sigaction(SIGINT, &action, nullptr);
}

}  // namespace quillon
