#include "support/process.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

#include "support/files.h"
#include "support/wait.h"

namespace quillon::test {

Process::Process(const Words& words)
    : out_(::memfd_create("out", MFD_CLOEXEC)), err_(::memfd_create("err", MFD_CLOEXEC))
{
    if (out_ < 0 || err_ < 0) {
        throw std::runtime_error("no memory for a program's output");
    }
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, out_, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, err_, STDERR_FILENO);
    // A test that was started in the background ignores SIGINT; a shell in it could not trap that.
    sigset_t all;
    ::sigfillset(&all);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigdefault(&attributes, &all);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const int error =
        ::posix_spawnp(&pid_, arguments.front(), &actions, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        ::close(out_);
        ::close(err_);
        throw std::runtime_error("cannot start " + words.front());
    }
}

Process::~Process()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
    ::close(out_);
    ::close(err_);
}

int Process::wait()
{
    const int status = statusOf(pid_);
    pid_ = -1;
    return status;
}

void Process::kill(int signal) const
{
    if (pid_ > 0) {
        ::kill(pid_, signal);
    }
}

std::string Process::out() const
{
    return readAll("/proc/self/fd/" + std::to_string(out_));
}

std::string Process::err() const
{
    return readAll("/proc/self/fd/" + std::to_string(err_));
}

bool Process::says(const std::string& text) const
{
    return eventually([&] { return out().find(text) != std::string::npos; });
}

Result run(const Words& words)
{
    Process process(words);
    const int status = process.wait();
    return {status, process.out(), process.err()};
}

Result runInShell(const std::string& command)
{
    return run({"/bin/sh", "-c", command});
}

bool succeeds(const std::string& command)
{
    return runInShell(command).status == 0;
}

std::string outputOf(const std::string& command)
{
    const Result result = runInShell(command);
    EXPECT_EQ(result.status, 0) << command << "\n" << result.err;
    return result.out;
}

int inChild(const std::function<int()>& work)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit([&]() noexcept { return work(); }());
    }
    return statusOf(child);
}

int inChildAs(uid_t user, gid_t group, const std::vector<gid_t>& others,
              const std::function<int()>& work)
{
    return inChild([&] {
        const bool isUser = ::setgroups(others.size(), others.data()) == 0 &&
                            ::setgid(group) == 0 && ::setuid(user) == 0;
        return isUser ? work() : 126;
    });
}

int statusOf(pid_t child)
{
    int status = 0;
    pid_t waited = 0;
    do {
        waited = ::waitpid(child, &status, 0);
    } while (waited == -1 && errno == EINTR);
    if (waited != child) {
        throw std::runtime_error("there is no such child");
    }
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace quillon::test
