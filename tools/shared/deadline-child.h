/// A process that works under a deadline, and what a program does with its own signals meanwhile.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace quillon {

/// The signals that ask the program to end: SIGTERM, and of SIGINT, SIGQUIT and SIGHUP those that
/// were not ignored when it was started, as by nohup or in a script's background. To be called for
/// the first time before their handlers change.
const sigset_t& requestSignals();

/// Blocks the requests' signals and SIGCHLD on the calling thread. Those that arrive
/// take effect when it is destroyed.
class RequestsHeld
{
public:
    RequestsHeld();
    ~RequestsHeld();
    RequestsHeld(const RequestsHeld&) = delete;
    RequestsHeld& operator=(const RequestsHeld&) = delete;

    /// Waits for one of them.
    /// @return the signal; 0 when the time is over
    int waitFor(std::chrono::milliseconds time);
    /// Makes a request that waitFor() has returned count again.
    void putBack(int signal) const;

    /// Unblocks them, whatever objects exist. For a forked child.
    static void release();

private:
    sigset_t before_ = {};
};

/// A monotonic time in ns, the same in all processes.
std::int64_t monotonicNow();

struct ChildEnd
{
    int status = 0;               ///< as waitpid() tells it
    int request = 0;              ///< the signal that asked for it
    std::int64_t judgedHung = 0;  ///< the deadline that was over
};

/// Waits for a child that leads a process group. When its time is over, or a request arrives, it
/// is killed with its group. One that cannot even be killed, as in a driver that does not return,
/// is left alone after five seconds.
/// @param deadline  a monotonicNow(); the child may move it
ChildEnd waitForChild(pid_t child, const std::atomic<std::int64_t>& deadline,
                      RequestsHeld& requests);

/// @return "SIGSEGV"; "signal 40" for one without a usual name
std::string nameOfSignal(int signal);

}  // namespace quillon
