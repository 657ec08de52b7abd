#include "foreign-end.h"

#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "support/paths.h"
#include "update-slot.h"

namespace quillon {

namespace {

constexpr const char* kCrashed = "\nquillonctl: a module has crashed in its update\n";

std::function<void(const std::string&)> g_onEnd;
std::atomic<bool> g_isOurs{false};
pid_t g_process = 0;

/// Stops at the first caller that belongs to a module.
_Unwind_Reason_Code lookAtCaller(_Unwind_Context* context, void* found)
{
    Dl_info info = {};
    const auto* address = reinterpret_cast<const void*>(_Unwind_GetIP(context));
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return _URC_NO_REASON;
    }
    const std::string library = info.dli_fname;
    if (library.rfind(paths::kModules, 0) != 0) {
        return _URC_NO_REASON;
    }
    const std::size_t name = std::strlen(paths::kModules);
    *static_cast<std::string*>(found) =
        "the module " + library.substr(name, library.rfind(".so") - name);
    return _URC_END_OF_STACK;
}

void onExit()
{
    if (g_isOurs.exchange(true) || getpid() != g_process) {
        return;
    }
    std::string who = "a module";
    _Unwind_Backtrace(lookAtCaller, &who);
    g_onEnd(who);
}

void onCrash(int signal)
{
    if (getpid() == g_process && UpdateSlot::instance().giveBack()) {
        [[maybe_unused]] const ssize_t written =
            write(STDERR_FILENO, kCrashed, std::strlen(kCrashed));
    }
    static_cast<void>(raise(signal));  // its usual effect has been restored
}

}  // namespace

void watchForForeignEnd(std::function<void(const std::string& who)> onEnd)
{
    g_process = getpid();
    g_onEnd = std::move(onEnd);
    UpdateSlot::instance();  // must not be destroyed before the end has been looked at
    static_cast<void>(std::atexit(onExit));
    static_cast<void>(std::at_quick_exit(onExit));
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS, SIGTRAP}) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_DFL) {
            continue;
        }
        action = {};
        action.sa_handler = onCrash;
        action.sa_flags = SA_RESETHAND | SA_NODEFER;
        sigaction(signal, &action, nullptr);
    }
}

void endIsOurs()
{
    g_isOurs = true;
}

}  // namespace quillon
