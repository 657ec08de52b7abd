#include "tools/quillonctl/modules/interruption.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "base/signals-blocked.h"
#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/update-slot.h"
#include "tools/shared/deadline-child.h"
#include "tools/shared/signals.h"

namespace quillon {

namespace {

enum class State {
    kOpen,       ///< the process may end
    kMayBegin,   ///< an update may begin at any moment
    kUpdating,   ///< an update has begun
    kOwnEnd,     ///< the main thread ends the process
    kAbandoning  ///< another thread ends the process
};

constexpr std::chrono::milliseconds kMainThreadsTime(500);
constexpr std::chrono::seconds kOutputsTime(5);
constexpr std::chrono::milliseconds kPoll(10);

constexpr const char* kHeld =
    "\nquillonctl: an update cannot be interrupted safely, it goes on; no other one is begun "
    "after it.\n"
    "quillonctl: Only SIGKILL ends it at once. The component may then be unusable until it is "
    "updated\n"
    "quillonctl: again, and \"quillonctl modules unlock\" is needed before the next update.\n";

// A plain bool for the registry's sake; each access is atomic, in the handlers as well.
bool g_running = true;
std::atomic<State> g_state{State::kOpen};
std::atomic<State> g_afterUpdates{State::kOpen};
std::atomic<bool> g_holdsOff{false};
sem_t g_wake;  // posted by the first request while the process may end
std::atomic<bool> g_hasWoken{false};
static_assert(std::atomic<State>::is_always_lock_free, "it is used in signal handlers");

bool change(State from, State to)
{
    return g_state.compare_exchange_strong(from, to);
}

struct Updates
{
    std::mutex mutex;
    int starting = 0;  // begun, but their thread has not been heard of
    int running = 0;
};
Updates g_updates;

void holdOff(int /*signal*/)
{
}

void request(int /*signal*/)
{
    const int callersErrno = errno;
    // In this order: beginUpdating() sees it, or it sees that an update has begun.
    __atomic_store_n(&g_running, false, __ATOMIC_SEQ_CST);
    const State state = g_state.load();
    if (state == State::kUpdating) {
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kHeld, std::strlen(kHeld));
    } else if (!g_hasWoken.exchange(true)) {
        sem_post(&g_wake);
    }
    if (state == State::kOwnEnd) {
        endIfOurs();
    }
    errno = callersErrno;
}

/// Those that end or stop a process unless they are caught, but for requests and what a crash
/// raises.
bool isWorthHoldingOff(int signal)
{
    for (const int other :
         {SIGKILL, SIGSTOP, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGCHLD,
          SIGCONT, SIGURG, SIGWINCH, SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
        if (signal == other) {
            return false;
        }
    }
    return handlerOf(signal) == SIG_DFL;
}

void endWhenTheMainThreadDoesNot(const std::function<void()>& abandon)
{
    for (;;) {
        while (sem_wait(&g_wake) != 0) {
        }
        std::this_thread::sleep_for(kMainThreadsTime);
        while (g_state.load() == State::kMayBegin) {
            std::this_thread::sleep_for(kPoll);
        }
        if (change(State::kOpen, State::kAbandoning)) {
            endIsOurs(kExitInterrupted);
            abandon();
            endAtOnce(kExitInterrupted);
        }
        const State state = g_state.load();
        if (state == State::kOwnEnd) {
            endIsOurs(kExitInterrupted);
            std::this_thread::sleep_for(kOutputsTime);  // whoever reads it may not go on
            endIfOurs();
        } else if (state == State::kUpdating) {
            g_hasWoken = false;
        }
    }
}

// In a process that a module forks the signals have their usual effect. None may arrive there
// before.
thread_local sigset_t g_beforeFork;

void blockForFork()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &g_beforeFork);
}

void unblockInParent()
{
    pthread_sigmask(SIG_SETMASK, &g_beforeFork, nullptr);
}

void leaveSignalsToChild()
{
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        const SignalHandler handler = handlerOf(signal);
        if (handler == holdOff || handler == request) {
            onSignal(signal, SIG_DFL);
        }
    }
    pthread_sigmask(SIG_SETMASK, &g_beforeFork, nullptr);
}

/// With the updates locked.
void openWhenNoneUpdates()
{
    if (g_updates.starting > 0 || g_updates.running > 0 ||
        !change(State::kUpdating, g_afterUpdates)) {
        return;
    }
    for (const int signal : {SIGINT, SIGQUIT}) {
        if (sigismember(&requestSignals(), signal) == 1) {
            onSignal(signal, request);
        }
    }
}

/// Takes those that all other threads have blocked.
[[noreturn]] void takeRequests()
{
    for (;;) {
        int signal = 0;
        if (sigwait(&requestSignals(), &signal) == 0 &&
            (signal != SIGHUP || handlerOf(SIGHUP) != SIG_IGN)) {
            request(signal);
        }
    }
}

}  // namespace

void keepKeyboardFromModules()
{
    const sigset_t signals = signalSet({SIGINT, SIGQUIT});
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void watchForRequests(std::function<void()> abandon)
{
    requestSignals();
    sem_init(&g_wake, 0, 0);
    pthread_atfork(blockForFork, unblockInParent, leaveSignalsToChild);
    const SignalsBlocked blocked;
    std::thread(endWhenTheMainThreadDoesNot, std::move(abandon)).detach();
    std::thread(takeRequests).detach();
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
        if (sigismember(&requestSignals(), signal) == 1) {
            onSignal(signal, request);
        }
    }
}

Failure noThread(const std::system_error& error)
{
    return {kExitSystem, "no thread can be started: " + error.code().message() +
                             "; end other programs of this user or raise its limit"};
}

bool& runningFlag()
{
    return g_running;
}

void holdOffSignals()
{
    g_holdsOff = true;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (!isWorthHoldingOff(signal)) {
            continue;
        }
        // The system repeats the call that raises one of these two for as long as there is a
        // handler.
        onSignal(signal, signal == SIGTTIN || signal == SIGTTOU ? SIG_IGN : holdOff);
    }
}

bool holdsOffSignals()
{
    return g_holdsOff;
}

bool isInterrupted()
{
    return !__atomic_load_n(&g_running, __ATOMIC_SEQ_CST);
}

void takeOverTheEnd()
{
    g_afterUpdates = State::kOwnEnd;
    if (!change(State::kOpen, State::kOwnEnd) && g_state.load() == State::kAbandoning) {
        waitForTheEnd();
    }
}

void mayBeginUpdating()
{
    if (!change(State::kOpen, State::kMayBegin) && g_state.load() == State::kAbandoning) {
        waitForTheEnd();
    }
}

// The programs that a module starts are on the same terminal. What it sends must not end them, so
// they inherit that these signals are ignored. This process still gets them: what is blocked in all
// threads is kept although it is ignored, until somebody waits for it.
bool beginUpdating()
{
    mayBeginUpdating();
    const std::lock_guard<std::mutex> lock(g_updates.mutex);
    g_state = State::kUpdating;
    if (isInterrupted()) {
        openWhenNoneUpdates();
        return false;
    }
    ++g_updates.starting;
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP}) {
        onSignal(signal, SIG_IGN);
    }
    onSignal(SIGTERM, request);  // a module may have changed it since
    return true;
}

void didNotBeginUpdating()
{
    change(State::kMayBegin, State::kOpen);
}

void updateStarted()
{
    const std::lock_guard<std::mutex> lock(g_updates.mutex);
    --g_updates.starting;
    ++g_updates.running;
}

void updateEnded()
{
    const std::lock_guard<std::mutex> lock(g_updates.mutex);
    --g_updates.running;
    openWhenNoneUpdates();
}

void updateDidNotStart()
{
    const std::lock_guard<std::mutex> lock(g_updates.mutex);
    --g_updates.starting;
    openWhenNoneUpdates();
}

void endUpdating()
{
    const std::lock_guard<std::mutex> lock(g_updates.mutex);
    openWhenNoneUpdates();
}

}  // namespace quillon
