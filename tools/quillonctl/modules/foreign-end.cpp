#include "tools/quillonctl/modules/foreign-end.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <thread>
#include <typeinfo>
#include <utility>

#include "base/signals-blocked.h"
#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-events.h"
#include "tools/quillonctl/modules/packages-lock.h"
#include "tools/quillonctl/modules/update-slot.h"
#include "tools/shared/signals.h"

namespace quillon {

namespace {

constexpr const char* kCrashed = "\nquillonctl: a module has crashed in its update\n";
constexpr const char* kEnded = "\nquillonctl: a module has ended the program\n";
constexpr const char* kNoMemory =
    "\nquillonctl: memory is used up, probably by a module; \"quillonctl modules list\" names one "
    "that uses it up, otherwise end other programs\n";
/// So long the end that a module has brought about may take to be told.
constexpr std::chrono::seconds kTimeToTell(5);
/// So many threads may exit at the same moment.
constexpr int kExitsAtOnce = 8;
constexpr std::array<int, 7> kCrashes = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS, SIGTRAP};
constexpr std::size_t kAlternateStackSize = 65536;

std::function<void(const std::string&)> g_onEnd;
std::terminate_handler g_terminate = nullptr;  // the one before
void (*g_onCrash)(int signal, const char* libName) = nullptr;
enum class End {
    kNone,
    kBeingTold,  ///< a module has brought it about
    kOurs
};
std::atomic<End> g_end{End::kNone};
std::atomic<int> g_ownCode{0};
pid_t g_process = 0;
sem_t g_ending;  // posted when five seconds are left

/// A module that ends a process which is ending already does not change its code.
int codeOfEnd(int code)
{
    return getpid() == g_process && g_end == End::kOurs ? g_ownCode.load() : code;
}

/// Stops at the first caller that belongs to a module.
_Unwind_Reason_Code lookAtCaller(_Unwind_Context* context, void* found)
{
    Dl_info info = {};
    const auto* address = reinterpret_cast<const void*>(_Unwind_GetIP(context));
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return _URC_NO_REASON;
    }
    const char* module = ModuleEvents::instance().moduleOf(info.dli_fname);
    if (module == nullptr) {
        return _URC_NO_REASON;
    }
    *static_cast<const char**>(found) = module;
    return _URC_END_OF_STACK;
}

/// The module whose code this thread runs, or empty. Allocates nothing: after a crash, the heap may
/// be locked or broken.
const char* moduleOnStack()
{
    const char* module = "";
    _Unwind_Backtrace(lookAtCaller, &module);
    return module;
}

void say(const char* text)
{
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
}

/// A thread of its own: a module can take any signal away, and it may end the program in a handler,
/// in which what is needed to tell of it may be locked.
void endWhenStuck()
{
    while (sem_wait(&g_ending) != 0) {
    }
    std::this_thread::sleep_for(kTimeToTell);
    endIfOurs();
    static_cast<void>(UpdateSlot::instance().giveBack());
    say(kEnded);
    endAtOnce(holdsOffSignals() ? kExitUpdateFailed : kExitUnusableModule);
}

bool change(End from, End to)
{
    return g_end.compare_exchange_strong(from, to);
}

void onForeignEnd()
{
    if (getpid() != g_process || g_end == End::kOurs) {
        return;
    }
    if (!change(End::kNone, End::kBeingTold)) {
        waitForTheEnd();
    }
    sem_post(&g_ending);
    static_cast<void>(UpdateSlot::instance().giveBack());
    g_onEnd(moduleOnStack());
}

/// The system calls each of these once, so there is always one more: a second thread that exits
/// must not get to the end of them.
void onExit()
{
    if (getpid() == g_process && g_end != End::kOurs) {
        static_cast<void>(std::atexit(onExit));
    }
    onForeignEnd();
}

/// Whether another process has sent it.
bool isFromOutside(const siginfo_t& info)
{
    const bool isSent =
        info.si_code == SI_USER || info.si_code == SI_TKILL || info.si_code == SI_QUEUE;
    return isSent && info.si_pid != g_process;
}

void crashed(int signal, siginfo_t* info, void* /*context*/)
{
    if (getpid() == g_process) {
        if (isFromOutside(*info) && holdsOffSignals()) {
            return;
        }
        if (UpdateSlot::instance().giveBack()) {
            say(kCrashed);
        }
        PackagesLock::instance().giveUp();  // a process that the module has made may have it too
    }
    onSignal(signal, SIG_DFL);
    if (getpid() == g_process && g_onCrash != nullptr) {
        g_onCrash(signal, "");
        g_onCrash(signal, moduleOnStack());
    }
    static_cast<void>(raise(signal));
}

/// What a module does in its update is told as its crash.
void terminated()
{
    const std::type_info* raised = abi::__cxa_current_exception_type();
    const bool isOutOfMemory = raised != nullptr && *raised == typeid(std::bad_alloc);
    if (getpid() == g_process && g_onCrash == nullptr && isOutOfMemory &&
        (!holdsOffSignals() || *moduleOnStack() == '\0')) {
        static_cast<void>(UpdateSlot::instance().giveBack());
        say(kNoMemory);
        endAtOnce(holdsOffSignals() ? kExitUpdateFailed : kExitSystem);
    }
    g_terminate();
}

/// Changes the thread's signal mask as pthread_sigmask does, but blocks no signal of a crash.
int changeMask(int how, const sigset_t* signals, sigset_t* before)
{
    using Change = int (*)(int, const sigset_t*, sigset_t*);
    static const auto change = reinterpret_cast<Change>(dlsym(RTLD_NEXT, "pthread_sigmask"));
    if (signals == nullptr || how == SIG_UNBLOCK) {
        return change(how, signals, before);
    }
    sigset_t bearable = *signals;
    for (const int signal : kCrashes) {
        sigdelset(&bearable, signal);
    }
    return change(how, &bearable, before);
}

using Exit = void (*)(int);

// The system's. Looked up before there are threads: a process that one of them forks may exit while
// the dynamic linker is locked.
const auto g_exit = reinterpret_cast<Exit>(dlsym(RTLD_NEXT, "exit"));
const auto g_quickExit = reinterpret_cast<Exit>(dlsym(RTLD_NEXT, "quick_exit"));

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

void watchForForeignEnd(std::function<void(const std::string& libName)> onEnd,
                        void (*onCrash)(int signal, const char* libName))
{
    g_onCrash = onCrash;
    g_process = getpid();
    g_onEnd = std::move(onEnd);
    UpdateSlot::instance();  // must not be destroyed before the end has been looked at
    bearStackOverflow();
    sem_init(&g_ending, 0, 0);
    {
        const SignalsBlocked blocked;
        std::thread(endWhenStuck).detach();
    }
    g_terminate = std::set_terminate(terminated);
    for (int i = 0; i < kExitsAtOnce; ++i) {
        static_cast<void>(std::atexit(onExit));
        static_cast<void>(std::at_quick_exit(onForeignEnd));
    }
    for (const int signal : kCrashes) {
        if (handlerOf(signal) != SIG_DFL) {
            continue;
        }
        struct sigaction action = {};
        action.sa_sigaction = crashed;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | SA_RESTART;
        sigaction(signal, &action, nullptr);
    }
}

void endIsOurs(int code)
{
    g_ownCode = code;
    if (!change(End::kNone, End::kOurs) && g_end == End::kBeingTold) {
        waitForTheEnd();
    }
    if (g_process != 0) {
        sem_post(&g_ending);
    }
}

void endIfOurs()
{
    if (g_end == End::kOurs) {
        static_cast<void>(UpdateSlot::instance().giveBack());
        endAtOnce(g_ownCode);
    }
}

void waitForTheEnd()
{
    for (;;) {
        pause();
    }
}

void endAtOnce(int code)
{
    PackagesLock::instance().giveUp();
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
    quillon::onForeignEnd();
    quillon::endAtOnce(quillon::codeOfEnd(code));
}

// What the module has left to be done at the program's end would come before the program's own.
__attribute__((used, visibility("default"))) void exit(int code) noexcept
{
    quillon::onForeignEnd();
    quillon::g_exit(quillon::codeOfEnd(code));
    quillon::waitForTheEnd();
}

__attribute__((used, visibility("default"))) void quick_exit(int code) noexcept
{
    quillon::onForeignEnd();
    quillon::g_quickExit(quillon::codeOfEnd(code));
    quillon::waitForTheEnd();
}

// A crash whose signal is blocked would end the program unnoticed.
__attribute__((used, visibility("default"))) int pthread_sigmask(int how, const sigset_t* signals,
                                                                 sigset_t* before) noexcept
{
    return quillon::changeMask(how, signals, before);
}

__attribute__((used, visibility("default"))) int sigprocmask(int how, const sigset_t* signals,
                                                             sigset_t* before) noexcept
{
    const int error = quillon::changeMask(how, signals, before);
    if (error != 0) {
        errno = error;
    }
    return error == 0 ? 0 : -1;
}

__attribute__((used, visibility("default"))) void _Exit(int code) noexcept
{
    _exit(code);
}
}
