#ifndef QUILLON_BENCH_PROCESS_READY_SOCKET_H
#define QUILLON_BENCH_PROCESS_READY_SOCKET_H

#include <sys/types.h>

#include <chrono>
#include <string>

namespace quillon::bench {

/// The service manager's end of readiness: a datagram socket to which processes send READY=1.
/// Not for use by two threads.
class ReadySocket
{
public:
    /// @throws std::system_error when there can be no socket
    ReadySocket();
    ~ReadySocket();
    ReadySocket(const ReadySocket&) = delete;
    ReadySocket& operator=(const ReadySocket&) = delete;

    /// The value for a process's NOTIFY_SOCKET; a name of its own that leaves no file behind.
    const std::string& name() const { return name_; }

    /// Waits for a process to say READY=1. What others say is dropped.
    /// @return the moment at which the datagram had arrived
    /// @throws std::runtime_error when the process ends before, or the time is over
    std::chrono::steady_clock::time_point waitFor(pid_t process, std::chrono::milliseconds timeout);

private:
    /// Takes one datagram, which has to be there.
    bool takeReadyOf(pid_t process);

    int socket_;
    std::string name_;
};

}  // namespace quillon::bench

#endif
