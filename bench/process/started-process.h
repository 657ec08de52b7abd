#ifndef QUILLON_BENCH_PROCESS_STARTED_PROCESS_H
#define QUILLON_BENCH_PROCESS_STARTED_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "process/ready-socket.h"

namespace quillon::bench {

/// How long a process may take to become ready.
constexpr std::chrono::seconds kLongestStart(30);

/// A program that was started to be measured. It is killed at the end of the object's life.
class StartedProcess
{
public:
    /// Starts a program with /dev/null as its standard streams. It sees our environment, but of a
    /// service manager only the socket.
    /// @param command  path and arguments
    /// @throws std::system_error when it cannot be started
    StartedProcess(const std::vector<std::string>& command, ReadySocket& socket);
    ~StartedProcess();
    StartedProcess(const StartedProcess&) = delete;
    StartedProcess& operator=(const StartedProcess&) = delete;

    pid_t pid() const { return pid_; }

    /// Waits until it says READY=1.
    /// @return the time since just before it was started
    /// @throws std::runtime_error when it ends before, or takes longer than kLongestStart
    std::chrono::duration<double, std::milli> waitUntilReady();

private:
    ReadySocket& socket_;
    std::chrono::steady_clock::time_point started_;
    pid_t pid_ = -1;
};

/// Runs a program to its end and collects its standard output. It inherits the other streams.
/// @param command  program, looked for in PATH, and arguments
/// @throws std::runtime_error when it cannot be started or its exit status is not 0
std::string outputOf(const std::vector<std::string>& command);

}  // namespace quillon::bench

#endif
