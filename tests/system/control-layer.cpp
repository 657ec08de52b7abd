#include "system/control-layer.h"
#include "support/files.h"
#include "support/process.h"
#include "support/wait.h"

#include <fcntl.h>
#include <pty.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace quillon::test {
namespace {

constexpr const char* kSemaphore = "/SEM_UPDATE_CONTROL";

int codeOf(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace

BackgroundLayer::BackgroundLayer(const std::vector<std::string>& arguments, bool onTerminal,
                                 const std::vector<int>& ignored)
{
    static int number = 0;
    path_ = "/var/tmp/layer-" + std::to_string(++number);
    std::vector<std::string> words = {"quillonctl"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_ = onTerminal ? ::forkpty(&terminal_, nullptr, nullptr, nullptr) : ::fork();
    if (pid_ == 0) {
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT}) {
            static_cast<void>(
                ::signal(signal, SIG_DFL));  // a test run in the background ignores them
        }
        for (const int signal : ignored) {
            static_cast<void>(::signal(signal, SIG_IGN));
        }
        if (!onTerminal) {
            ::setpgid(0, 0);
            const int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
            ::dup2(file, STDOUT_FILENO);
            ::dup2(file, STDERR_FILENO);
            ::close(file);
        }
        for (int file = STDERR_FILENO + 1; file < 1024; ++file) {
            ::close(file);  // the numbers of its files are then the lowest
        }
        ::execv(QUILLONCTL_PROGRAM, argv.data());
        ::_exit(127);
    }
}

BackgroundLayer::~BackgroundLayer()
{
    hangUp();
    if (pid_ > 0) {
        send(SIGKILL);
        wait();
    }
}

std::string BackgroundLayer::output() const
{
    std::stringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
}

bool BackgroundLayer::says(const std::string& text) const
{
    return eventually([&] { return output().find(text) != std::string::npos; });
}

void BackgroundLayer::send(int signal) const
{
    ::kill(pid_, signal);
}

void BackgroundLayer::sendToAll(int signal) const
{
    ::kill(-pid_, signal);
}

void BackgroundLayer::hangUp()
{
    if (terminal_ != -1) {
        ::close(terminal_);
        terminal_ = -1;
    }
}

int BackgroundLayer::wait()
{
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return codeOf(status);
}

bool wasAsked(const std::string& module, const std::string& call)
{
    for (const std::string& made : callsOfModule(module)) {
        if (made.rfind(call, 0) == 0) {
            return true;
        }
    }
    return false;
}

void ControlLayer::installGuided(const std::string& name, const std::string& what)
{
    install(name);
    std::filesystem::copy_file(GUIDED_MODULE, "/usr/fwupdate/controls/" + name + ".so",
                               std::filesystem::copy_options::overwrite_existing);
    writeFile("/etc/quillon-test/" + name + ".conf", what);
    offer(name, 60);
}

void ControlLayer::installWaiting(const std::string& name)
{
    installGuided(name, "wait-in-doUpdate");
}

void ControlLayer::goOn()
{
    writeFile("/tmp/quillon-test-go", "");
}

bool ControlLayer::isFlashing(const std::string& name)
{
    return eventually([&] { return wasAsked(name, "doUpdate("); });
}

int semaphoreValue()
{
    sem_t* semaphore = ::sem_open(kSemaphore, 0);
    if (semaphore == SEM_FAILED) {
        return -1;
    }
    int value = -1;
    ::sem_getvalue(semaphore, &value);
    ::sem_close(semaphore);
    return value;
}

void leaveSemaphoreBehind()
{
    EXPECT_EQ(inChild([] {
                  sem_t* semaphore = ::sem_open(kSemaphore, O_CREAT, 0600, 1);
                  return semaphore != SEM_FAILED && ::sem_wait(semaphore) == 0 ? 0 : 1;
              }),
              0);
}

int runShell(const std::string& line)
{
    ::setenv("CTL", QUILLONCTL_PROGRAM, 1);
    const pid_t child = ::fork();
    if (child == 0) {
        ::execlp("bash", "bash", "--norc", "-c", line.c_str(), nullptr);
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return codeOf(status);
}

}  // namespace quillon::test
