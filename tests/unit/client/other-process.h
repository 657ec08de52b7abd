/// Processes beside a test's own.
#pragma once

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
        if (pipe(pipe_) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            const int result = body();
            [[maybe_unused]] const ssize_t told = write(pipe_[1], &result, sizeof result);
            while (true) {
                pause();
            }
        }
    }
    ~OtherProcess()
    {
        kill();
        close(pipe_[0]);
        close(pipe_[1]);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    int ready()
    {
        int result = -1;
        return read(pipe_[0], &result, sizeof result) == sizeof result ? result : -1;
    }
    void kill()
    {
        if (pid_ > 0) {
            killAndLeaveZombie();
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    void killAndLeaveZombie() const { ::kill(pid_, SIGKILL); }
    pid_t pid() const { return pid_; }

private:
    int pipe_[2] = {-1, -1};
    pid_t pid_ = -1;
};
