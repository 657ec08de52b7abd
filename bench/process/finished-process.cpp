#include "process/finished-process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace quillon::bench {
namespace {

constexpr std::size_t kMostErrorText = 1000;

double secondsOf(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Where a program writes to while it runs. A file in memory takes any amount without a reader, so
/// that nothing of ours competes with the program for a processor.
class Sink
{
public:
    Sink() : fd_(memfd_create("output", MFD_CLOEXEC))
    {
        if (fd_ == -1) {
            throw std::system_error(errno, std::generic_category(), "memfd_create");
        }
    }
    ~Sink() { close(fd_); }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    int fd() const { return fd_; }

    std::string text() const
    {
        struct stat status = {};
        static_cast<void>(fstat(fd_, &status));
        std::string all(static_cast<std::size_t>(status.st_size), '\0');
        const ssize_t count = pread(fd_, all.data(), all.size(), 0);
        all.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return all;
    }

private:
    int fd_;
};

class Actions
{
public:
    Actions(int output, int errors, const std::string& folder)
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions_, errors, STDERR_FILENO);
        if (!folder.empty()) {
            posix_spawn_file_actions_addchdir_np(&actions_, folder.c_str());
        }
    }
    ~Actions() { posix_spawn_file_actions_destroy(&actions_); }
    Actions(const Actions&) = delete;
    Actions& operator=(const Actions&) = delete;
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

class Pipe
{
public:
    Pipe()
    {
        if (pipe2(ends_.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
    }
    ~Pipe()
    {
        close(ends_[0]);
        closeWritingEnd();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int writingEnd() const { return ends_[1]; }
    void closeWritingEnd() const
    {
        if (ends_[1] != -1) {
            close(std::exchange(ends_[1], -1));
        }
    }
    /// Waits for more of it. @return false at its end
    bool readInto(std::string& text) const
    {
        std::array<char, 4096> part{};
        const ssize_t count = read(ends_[0], part.data(), part.size());
        if (count > 0) {
            text.append(part.data(), static_cast<std::size_t>(count));
        }
        return count > 0 || (count == -1 && errno == EINTR);
    }

private:
    mutable std::array<int, 2> ends_{-1, -1};
};

/// A program from its start on.
class Running
{
public:
    Running(const std::vector<std::string>& command, const Actions& actions)
    {
        std::vector<std::string> words = command;
        std::vector<char*> arguments(words.size() + 1);
        std::transform(words.begin(), words.end(), arguments.begin(),
                       [](std::string& word) { return word.data(); });
        const int error = posix_spawnp(&process_, arguments.front(), actions.get(), nullptr,
                                       arguments.data(), environ);
        if (error != 0) {
            throw std::runtime_error(command.front() + ": " +
                                     std::generic_category().message(error));
        }
    }
    double seconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    }
    /// Waits for it.
    Finished end() const
    {
        int status = 0;
        rusage usage = {};
        while (wait4(process_, &status, 0, &usage) == -1 && errno == EINTR) {
        }
        Finished finished;
        finished.wallSeconds = seconds();
        finished.cpuSeconds = secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
        finished.succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        return finished;
    }

private:
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    pid_t process_ = -1;
};

std::string endOf(const std::string& text)
{
    return text.size() <= kMostErrorText ? text : text.substr(text.size() - kMostErrorText);
}

}  // namespace

Finished runToAnyEnd(const std::vector<std::string>& command, const std::string& folder)
{
    const Sink output;
    const Sink errors;
    const Running running(command, Actions(output.fd(), errors.fd(), folder));
    Finished finished = running.end();
    finished.output = output.text();
    finished.errors = errors.text();
    return finished;
}

Finished runToEnd(const std::vector<std::string>& command, const std::string& folder)
{
    Finished finished = runToAnyEnd(command, folder);
    if (!finished.succeeded) {
        throw std::runtime_error(command.front() +
                                 " failed: " + endOf(finished.output + finished.errors));
    }
    return finished;
}

Finished runUntilItSays(const std::vector<std::string>& command, const std::string& folder,
                        const std::string& text)
{
    const Pipe output;
    const Sink errors;
    const Running running(command, Actions(output.writingEnd(), errors.fd(), folder));
    output.closeWritingEnd();
    std::string said;
    double wallSeconds = -1;
    while (output.readInto(said)) {
        if (wallSeconds < 0 && said.find(text) != std::string::npos) {
            wallSeconds = running.seconds();
        }
    }
    Finished finished = running.end();
    finished.output = said;
    finished.errors = errors.text();
    if (wallSeconds < 0) {
        throw std::runtime_error(command.front() + " failed: " + endOf(said + finished.errors));
    }
    finished.wallSeconds = wallSeconds;
    return finished;
}

}  // namespace quillon::bench
