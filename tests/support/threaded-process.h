#pragma once

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace quillon::test {

/// A process that works on in a thread after its main thread has ended. Ends with its owner.
class ThreadedProcess
{
public:
    /// @param act  called in the thread before the main thread ends; returns whether it succeeded
    explicit ThreadedProcess(const std::function<bool()>& act)
    {
        int told[2] = {-1, -1};
        static_cast<void>(!::pipe(told));
        pid_ = ::fork();
        if (pid_ == 0) {
            std::thread([&] {
                const char word = act() ? 'y' : 'n';
                waitForTheMainThreadToEnd();
                static_cast<void>(!::write(told[1], &word, 1));
                for (;;) {
                    ::pause();
                }
            }).detach();
            ::syscall(SYS_exit, 0);  // of this thread alone
        }
        ::close(told[1]);
        char word = 'n';
        isAtWork_ = ::read(told[0], &word, 1) == 1 && word == 'y';
        ::close(told[0]);
    }
    ~ThreadedProcess()
    {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    ThreadedProcess(const ThreadedProcess&) = delete;
    ThreadedProcess& operator=(const ThreadedProcess&) = delete;

    bool isAtWork() const { return isAtWork_; }
    pid_t process() const { return pid_; }

private:
    static void waitForTheMainThreadToEnd()
    {
        const std::string maps = "/proc/" + std::to_string(::getpid()) + "/maps";
        while (std::ifstream(maps).peek() != std::ifstream::traits_type::eof()) {
            std::this_thread::yield();
        }
    }

    pid_t pid_ = -1;
    bool isAtWork_ = false;
};

}  // namespace quillon::test
