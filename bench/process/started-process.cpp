#include "process/started-process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace quillon::bench {
namespace {

using std::chrono::steady_clock;

/// What a service manager of the machine told us is none of the measured process's.
constexpr std::string_view kServiceManagers[] = {
    "NOTIFY_SOCKET=", "WATCHDOG_USEC=", "WATCHDOG_PID=", "JOURNAL_STREAM="};

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers(texts.size() + 1);  // ends with a null pointer
    std::transform(texts.begin(), texts.end(), pointers.begin(),
                   [](std::string& text) { return text.data(); });
    return pointers;
}

std::vector<std::string> environmentWith(const std::string& notifySocket)
{
    std::vector<std::string> variables{"NOTIFY_SOCKET=" + notifySocket};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        const bool dropped =
            std::any_of(std::begin(kServiceManagers), std::end(kServiceManagers),
                        [&](std::string_view name) { return text.substr(0, name.size()) == name; });
        if (!dropped) {
            variables.emplace_back(text);
        }
    }
    return variables;
}

/// Descriptors of a process that is about to start.
class Streams
{
public:
    Streams() { posix_spawn_file_actions_init(&actions_); }
    ~Streams() { posix_spawn_file_actions_destroy(&actions_); }
    Streams(const Streams&) = delete;
    Streams& operator=(const Streams&) = delete;

    void toNull(int stream)
    {
        posix_spawn_file_actions_addopen(&actions_, stream, "/dev/null", O_RDWR, 0);
    }
    void toDescriptor(int stream, int descriptor)
    {
        posix_spawn_file_actions_adddup2(&actions_, descriptor, stream);
    }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

int waitFor(pid_t process)
{
    int status = 0;
    while (waitpid(process, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

std::string readAllAndClose(int descriptor)
{
    std::string all;
    std::array<char, 4096> part{};
    for (;;) {
        const ssize_t count = read(descriptor, part.data(), part.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        all.append(part.data(), static_cast<std::size_t>(count));
    }
    close(descriptor);
    return all;
}

}  // namespace

StartedProcess::StartedProcess(const std::vector<std::string>& command, ReadySocket& socket)
    : socket_(socket)
{
    std::vector<std::string> words = command;
    std::vector<std::string> variables = environmentWith(socket.name());
    const std::vector<char*> arguments = pointersTo(words);
    const std::vector<char*> environment = pointersTo(variables);
    Streams streams;
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        streams.toNull(stream);
    }

    started_ = steady_clock::now();
    const int error = posix_spawn(&pid_, arguments.front(), streams.get(), nullptr,
                                  arguments.data(), environment.data());
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), command.front());
    }
}

StartedProcess::~StartedProcess()
{
    kill(pid_, SIGKILL);
    waitFor(pid_);
}

std::chrono::duration<double, std::milli> StartedProcess::waitUntilReady()
{
    return socket_.waitFor(pid_, kLongestStart) - started_;
}

std::string outputOf(const std::vector<std::string>& command)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    std::vector<std::string> words = command;
    const std::vector<char*> arguments = pointersTo(words);
    Streams streams;
    streams.toDescriptor(STDOUT_FILENO, ends[1]);
    pid_t process = -1;
    const int error = posix_spawnp(&process, arguments.front(), streams.get(), nullptr,
                                   arguments.data(), environ);
    close(ends[1]);
    std::string output = readAllAndClose(ends[0]);
    if (error != 0) {
        throw std::runtime_error(command.front() + ": " + std::generic_category().message(error));
    }
    const int status = waitFor(process);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(command.front() + " failed");
    }
    return output;
}

}  // namespace quillon::bench
