#include "unit/tools/ctl-program.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

#include "support/open-way.h"

namespace {

/// Made before fork(): another thread may hold the allocator's lock then, for ever in the child.
std::vector<char*> argumentsOf(const std::vector<std::string>& arguments)
{
    static char name[] = "quillonctl";
    std::vector<char*> argv = {name};
    for (const std::string& word : arguments) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

[[noreturn]] void execCtl(const std::vector<char*>& argv)
{
    for (const int number : {SIGHUP, SIGINT, SIGQUIT}) {
        static_cast<void>(signal(number, SIG_DFL));  // a test run in the background ignores them
    }
    execv(QUILLONCTL_PROGRAM, argv.data());
    _exit(127);
}

/// @return false at the end of the file
bool readSome(int file, std::string& text)
{
    std::array<char, 4096> buffer{};
    const ssize_t size = read(file, buffer.data(), buffer.size());
    if (size > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return size > 0;
}

int waitForExit(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

CtlProgram::CtlProgram(const std::vector<std::string>& arguments, uid_t user)
{
    int out[2];
    int err[2];
    if (pipe(out) != 0 || pipe(err) != 0) {
        throw std::runtime_error("cannot make pipes");
    }
    const std::vector<char*> argv = argumentsOf(arguments);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        for (const int file : {out[0], out[1], err[0], err[1]}) {
            close(file);
        }
        if (user != 0 && setuid(user) != 0) {
            _exit(126);
        }
        execCtl(argv);
    }
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
}

CtlProgram::~CtlProgram()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitForExit(pid_);
    }
    close(out_);
    close(err_);
}

void CtlProgram::sendSignal(int number) const
{
    kill(pid_, number);
}

CtlResult CtlProgram::finish()
{
    CtlResult result;
    std::array<pollfd, 2> files{{{out_, POLLIN, 0}, {err_, POLLIN, 0}}};
    while (files[0].fd != -1 || files[1].fd != -1) {
        poll(files.data(), files.size(), -1);
        if (files[0].revents != 0 && !readSome(out_, result.out)) {
            files[0].fd = -1;
        }
        if (files[1].revents != 0 && !readSome(err_, result.err)) {
            files[1].fd = -1;
        }
    }
    result.exitCode = waitForExit(pid_);
    pid_ = -1;
    return result;
}

UnreadCtl::UnreadCtl(const std::vector<std::string>& arguments)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::runtime_error("no pipe");
    }
    reader_ = quillon::UniqueFd(ends[0]);
    writer_ = quillon::UniqueFd(ends[1]);
    while (write(writer_.get(), "x", 1) == 1) {
    }
    fcntl(writer_.get(), F_SETFL, 0);
    const std::vector<char*> argv = argumentsOf(arguments);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(writer_.get(), STDOUT_FILENO);
        execCtl(argv);
    }
}

UnreadCtl::~UnreadCtl()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool UnreadCtl::isAlive() const
{
    siginfo_t end = {};
    return waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           end.si_pid == 0;
}

std::string UnreadCtl::read()
{
    writer_.reset();
    fcntl(reader_.get(), F_SETFL, 0);
    std::string text;
    while (readSome(reader_.get(), text)) {
    }
    return text.substr(text.find_first_not_of('x'));
}

CtlResult runCtl(const std::vector<std::string>& arguments, uid_t user)
{
    return CtlProgram(arguments, user).finish();
}

bool canRunCtlAs(uid_t user)
{
    return quillon::test::openWayTo(QUILLONCTL_PROGRAM) &&
           runCtl({"--version"}, user).exitCode == 0;
}

CtlResult runCtlOnTerminal(const std::vector<std::string>& arguments, unsigned short columns,
                           const char* terminal)
{
    winsize size{};
    size.ws_col = columns;
    size.ws_row = 24;
    int master = -1;
    const std::vector<char*> argv = argumentsOf(arguments);
    const pid_t pid = forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) {
        setenv("TERM", terminal, 1);
        execCtl(argv);
    }
    if (pid < 0) {
        throw std::runtime_error("cannot make a terminal");
    }
    CtlResult result;
    while (readSome(master, result.out)) {
    }
    result.exitCode = waitForExit(pid);
    close(master);
    return result;
}
