#include "device-program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace quillon::test {

namespace {

bool comesTrue(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string contentOf(int fd)
{
    std::ifstream file("/proc/self/fd/" + std::to_string(fd));
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

std::string deviceProgram()
{
    return QUILLON_DEVICE_PROGRAM;
}

Process::Process(const Words& words)
    : out_(::memfd_create("out", MFD_CLOEXEC)), err_(::memfd_create("err", MFD_CLOEXEC))
{
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
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

void Process::kill(int signal) const
{
    ::kill(pid_, signal);
}

std::string Process::out() const
{
    return contentOf(out_);
}

std::string Process::err() const
{
    return contentOf(err_);
}

bool Process::says(const std::string& text) const
{
    return comesTrue([&] { return out().find(text) != std::string::npos; });
}

Result run(const Words& words)
{
    Process process(words);
    const int status = process.wait();
    return {status, process.out(), process.err()};
}

Result runDevice(const Words& arguments)
{
    Words words = {deviceProgram()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run(words);
}

Result runScript(const std::string& script, const Words& options)
{
    Words words = {"run"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--", "sh", "-c", script});
    return runDevice(words);
}

bool hasPrivateDevice(const std::string& way)
{
    const std::string info = runDevice({"info"}).out;
    const bool root = info.find("root:      yes") != std::string::npos;
    const bool user = info.find("user:      yes") != std::string::npos;
    if (way == "root") {
        return root;
    }
    return way == "user" ? user : root || user;
}

int processesWith(const std::string& word)
{
    int count = 0;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        std::ifstream file(entry.path() / "cmdline");
        std::ostringstream line;
        line << file.rdbuf();  // no exception for a process that ends between open and read
        count += line.str().find(word) != std::string::npos ? 1 : 0;
    }
    return count;
}

bool vanish(const std::string& word)
{
    return comesTrue([&] { return processesWith(word) == 0; });
}

std::string uniqueWord()
{
    return "quillon-device-test-" + std::to_string(::getpid());
}

}  // namespace quillon::test
