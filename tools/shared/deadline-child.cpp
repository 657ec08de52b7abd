#include "tools/shared/deadline-child.h"

#include <sys/wait.h>

#include <algorithm>
#include <map>

#include "base/signals-blocked.h"
#include "tools/shared/signals.h"

namespace quillon {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

/// How often the parent looks at the deadline. The child moves it.
constexpr milliseconds kBetweenLooks(200);
/// How long a killed process may take to end.
constexpr milliseconds kTimeToEnd(5000);

sigset_t heldSignals()
{
    sigset_t signals = requestSignals();
    sigaddset(&signals, SIGCHLD);
    return signals;
}

void endChild(pid_t child, ChildEnd& end, RequestsHeld& requests)
{
    kill(child, SIGKILL);  // it may have left its group
    kill(-child, SIGKILL);
    const std::int64_t deadline = monotonicNow() + nanoseconds(kTimeToEnd).count();
    while (waitpid(child, &end.status, WNOHANG) == 0 && monotonicNow() < deadline) {
        requests.waitFor(kBetweenLooks);
    }
}

}  // namespace

const sigset_t& requestSignals()
{
    static const sigset_t signals = [] {
        sigset_t requests = signalSet({SIGTERM});
        for (const int signal : {SIGINT, SIGQUIT, SIGHUP}) {
            if (handlerOf(signal) != SIG_IGN) {
                sigaddset(&requests, signal);
            }
        }
        return requests;
    }();
    return signals;
}

RequestsHeld::RequestsHeld()
{
    if (handlerOf(SIGCHLD) == SIG_IGN) {
        onSignal(SIGCHLD, SIG_DFL);  // else the system forgets how children end
    }
    const sigset_t signals = heldSignals();
    pthread_sigmask(SIG_BLOCK, &signals, &before_);
}

RequestsHeld::~RequestsHeld()
{
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

int RequestsHeld::waitFor(milliseconds time)
{
    const sigset_t signals = heldSignals();
    const timespec wait = {static_cast<time_t>(time.count() / 1000),
                           static_cast<long>(time.count() % 1000 * 1'000'000)};
    return std::max(sigtimedwait(&signals, nullptr, &wait), 0);
}

void RequestsHeld::putBack(int signal) const
{
    static_cast<void>(raise(signal));
}

void RequestsHeld::release()
{
    const sigset_t signals = heldSignals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

std::int64_t monotonicNow()
{
    return std::chrono::steady_clock::now().time_since_epoch() / nanoseconds(1);
}

ChildEnd waitForChild(pid_t child, const std::atomic<std::int64_t>& deadline,
                      RequestsHeld& requests)
{
    ChildEnd end;
    for (;;) {
        const int signal = requests.waitFor(kBetweenLooks);
        if (signal == SIGCHLD && waitpid(child, &end.status, WNOHANG) == child) {
            return end;
        }
        end.request = signal == SIGCHLD ? 0 : signal;
        const std::int64_t last = deadline;
        end.judgedHung = monotonicNow() >= last ? last : 0;
        if (end.request != 0 || end.judgedHung != 0) {
            endChild(child, end, requests);
            return end;
        }
    }
}

std::string nameOfSignal(int signal)
{
    static const std::map<int, const char*> kNames = {
        {SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},   {SIGILL, "SIGILL"},
        {SIGABRT, "SIGABRT"}, {SIGSYS, "SIGSYS"},   {SIGTRAP, "SIGTRAP"}, {SIGKILL, "SIGKILL"},
        {SIGTERM, "SIGTERM"}, {SIGALRM, "SIGALRM"}, {SIGPIPE, "SIGPIPE"}};
    const auto found = kNames.find(signal);
    return found != kNames.end() ? found->second : "signal " + std::to_string(signal);
}

}  // namespace quillon
