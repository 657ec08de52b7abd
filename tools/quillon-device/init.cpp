#include "tools/quillon-device/init.h"

#include <fcntl.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/signals-blocked.h"
#include "tools/quillon-device/setup-error.h"

namespace quillon::device {

namespace {

sigset_t handledSignals()
{
    return signalSet({SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2});
}

void fixAddresses()
{
    constexpr unsigned long kAsk = 0xffffffff;
    const int persona = ::personality(kAsk);
    if (persona < 0 || ::personality(static_cast<unsigned long>(persona) | ADDR_NO_RANDOMIZE) < 0) {
        complain(std::string("addresses stay random: ") + std::strerror(errno));
    }
}

/// Becomes the command; returns only when that fails.
void becomeCommand(const Command& command, const char* way, pid_t dieWith)
{
    if (dieWith > 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != dieWith) {
            ::_exit(kNoDevice);
        }
    }
    if (command.fixedAddresses) {
        fixAddresses();
    }
    ::setenv("QUILLON_DEVICE", way, 1);
    std::vector<char*> arguments;
    for (const std::string& argument : command.arguments) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    ::sigprocmask(SIG_SETMASK, &command.signalMask, nullptr);
    ::execvp(arguments.front(), arguments.data());
}

}  // namespace

sigset_t takeSignals()
{
    // Inherited as ignored, it would take the exit status away.
    static_cast<void>(::signal(SIGCHLD, SIG_DFL));
    const sigset_t set = handledSignals();
    sigset_t before;
    ::sigprocmask(SIG_BLOCK, &set, &before);
    return before;
}

Pipe makePipe()
{
    int ends[2];
    require(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

int runAsChild(const Command& command, const char* way, bool dieWithMe)
{
    Pipe failure = makePipe();
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    require(child >= 0, "fork");
    if (child == 0) {
        becomeCommand(command, way, dieWithMe ? parent : 0);
        const int error = errno;
        const ssize_t written = ::write(failure.out.get(), &error, sizeof error);
        ::_exit(written == sizeof error ? kNotRunnable : kNoDevice);
    }
    failure.out.reset();
    int error = 0;
    if (::read(failure.in.get(), &error, sizeof error) != sizeof error) {
        return waitFor(child);  // the command runs: its start has closed the pipe
    }
    ::waitpid(child, nullptr, 0);
    complain(command.arguments.front() + ": " + std::strerror(error));
    return error == ENOENT ? kNotFound : kNotRunnable;
}

int waitFor(pid_t child)
{
    const sigset_t set = handledSignals();
    std::optional<int> end;
    while (!end) {
        siginfo_t info = {};
        const int number = ::sigwaitinfo(&set, &info);
        if (number > 0 && number != SIGCHLD && info.si_code != SI_KERNEL) {
            ::kill(child, number);
        }
        int status = 0;
        for (pid_t pid = 0; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) {
            if (pid == child) {
                end = status;
            }
        }
    }
    return WIFSIGNALED(*end) ? 128 + WTERMSIG(*end) : WEXITSTATUS(*end);
}

}  // namespace quillon::device
