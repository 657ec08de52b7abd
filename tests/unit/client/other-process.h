/// Processes beside a test's own.
#ifndef QUILLON_TESTS_UNIT_CLIENT_OTHER_PROCESS_H
#define QUILLON_TESTS_UNIT_CLIENT_OTHER_PROCESS_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

/// A process that runs a function and then holds still until it is killed.
class OtherProcess
{
public:
    /// @param body  its result is what ready() returns
    explicit OtherProcess(const std::function<int()>& body)
    {
        if (pipe(m_pipe) != 0) {
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            const int result = body();
            [[maybe_unused]] const ssize_t told = write(m_pipe[1], &result, sizeof result);
            while (true) {
                pause();
            }
        }
    }
    ~OtherProcess()
    {
        kill();
        close(m_pipe[0]);
        close(m_pipe[1]);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    int ready()
    {
        int result = -1;
        return read(m_pipe[0], &result, sizeof result) == sizeof result ? result : -1;
    }
    void kill()
    {
        if (m_pid > 0) {
            killAndLeaveZombie();
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }
    void killAndLeaveZombie() const { ::kill(m_pid, SIGKILL); }
    pid_t pid() const { return m_pid; }

private:
    int m_pipe[2] = {-1, -1};
    pid_t m_pid = -1;
};

#endif
