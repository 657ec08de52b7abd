#include "tools/quillonctl/modules/foreign-end.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <utility>

#include "src/support/paths.h"
#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/update-slot.h"

namespace quillon {

namespace {

constexpr const char* kCrashed = "\nquillonctl: a module has crashed in its update\n";
constexpr const char* kEnded = "\nquillonctl: a module has ended the program\n";
/// So long the end that a module has brought about may take to be told.
constexpr unsigned int kSecondsToTell = 5;
constexpr std::size_t kAlternateStackSize = 65536;

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

void say(const char* text)
{
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
}

void onStuckEnd(int /*signal*/)
{
    static_cast<void>(UpdateSlot::instance().giveBack());
    say(kEnded);
    endAtOnce(holdsOffSignals() ? kExitUpdateFailed : kExitUnusableModule);
}

/// A module may end the program in a signal handler, in which what is needed to tell of it may be
/// locked.
void endSoon()
{
    struct sigaction action = {};
    action.sa_handler = onStuckEnd;
    sigaction(SIGALRM, &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    alarm(kSecondsToTell);
}

void onExit()
{
    if (getpid() != g_process || g_isOurs.exchange(true)) {
        return;
    }
    endSoon();
    std::string who = "a module";
    _Unwind_Backtrace(lookAtCaller, &who);
    g_onEnd(who);
}

/// Whether another process has sent it.
bool isFromOutside(const siginfo_t& info)
{
    const bool isSent =
        info.si_code == SI_USER || info.si_code == SI_TKILL || info.si_code == SI_QUEUE;
    return isSent && info.si_pid != g_process;
}

void onCrash(int signal, siginfo_t* info, void* /*context*/)
{
    if (getpid() == g_process) {
        if (isFromOutside(*info) && holdsOffSignals()) {
            return;
        }
        if (UpdateSlot::instance().giveBack()) {
            say(kCrashed);
        }
    }
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    sigaction(signal, &usual, nullptr);
    static_cast<void>(raise(signal));
}

/// Another one, as a sanitizer's, stays.
class AlternateStack
{
public:
    AlternateStack()
    {
        stack_t present = {};
        if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) {
            return;
        }
        memory_.reset(new (std::nothrow) char[kAlternateStackSize]);
        if (memory_ == nullptr) {
            return;
        }
        stack_t stack = {};
        stack.ss_sp = memory_.get();
        stack.ss_size = kAlternateStackSize;
        sigaltstack(&stack, nullptr);
    }
    ~AlternateStack()
    {
        stack_t present = {};
        if (sigaltstack(nullptr, &present) == 0 && present.ss_sp == memory_.get()) {
            present.ss_flags = SS_DISABLE;
            sigaltstack(&present, nullptr);
        }
    }
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;

private:
    std::unique_ptr<char[]> memory_;
};

}  // namespace

void watchForForeignEnd(std::function<void(const std::string& who)> onEnd)
{
    g_process = getpid();
    g_onEnd = std::move(onEnd);
    UpdateSlot::instance();  // must not be destroyed before the end has been looked at
    bearStackOverflow();
    static_cast<void>(std::atexit(onExit));
    static_cast<void>(std::at_quick_exit(onExit));
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS, SIGTRAP}) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_DFL) {
            continue;
        }
        action = {};
        action.sa_sigaction = onCrash;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | SA_RESTART;
        sigaction(signal, &action, nullptr);
    }
}

void endIsOurs()
{
    g_isOurs = true;
}

void endAtOnce(int code)
{
    for (;;) {
        syscall(SYS_exit_group, code);
    }
}

void bearStackOverflow()
{
    thread_local const AlternateStack stack;
    static_cast<void>(stack);
}

}  // namespace quillon

// The calls of modules, and of the libraries that they bring along, arrive here instead of in the
// system's library; those that this library makes itself do not.
extern "C" {
__attribute__((used, visibility("default"))) void _exit(int code)
{
    quillon::onExit();
    quillon::endAtOnce(code);
}

__attribute__((used, visibility("default"))) void _Exit(int code) noexcept
{
    _exit(code);
}
}
