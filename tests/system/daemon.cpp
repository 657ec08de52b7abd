#include "system/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kLogDirectory = "/var/lib/quillon/system-test";

/// One tick of the service is 10 s; sanitizers and a loaded machine add to it.
constexpr seconds kLongestStop(40);

constexpr const char* kSanitizerMarks[] = {"ERROR: AddressSanitizer",
                                           "runtime error:", "WARNING: ThreadSanitizer",
                                           "ERROR: LeakSanitizer", "Sanitizer:DEADLYSIGNAL"};

[[noreturn]] void becomeDaemon(int log, mode_t mask)
{
    ::umask(mask);
    // A service manager or journal of the machine that runs the tests is none of the device's.
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "JOURNAL_STREAM"}) {
        ::unsetenv(name);
    }
    const int nothing = ::open("/dev/null", O_RDONLY);
    ::dup2(nothing, STDIN_FILENO);
    ::dup2(log, STDOUT_FILENO);
    ::dup2(log, STDERR_FILENO);
    ::close(nothing);
    ::close(log);
    ::execl(QUILLON_SERVICE_PROGRAM, QUILLON_SERVICE_PROGRAM, static_cast<char*>(nullptr));
    ::_exit(127);
}

std::size_t countEntries(const std::string& directory)
{
    std::error_code ignored;
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(directory, ignored), {}));
}

}  // namespace

std::vector<std::string> linesOf(const std::string& path, const std::string& text)
{
    std::vector<std::string> found;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.find(text) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

Daemon::~Daemon()
{
    kill();
}

void Daemon::start(mode_t mask)
{
    ASSERT_EQ(pid_, -1) << "the daemon runs already";
    fs::create_directories(kLogDirectory);
    fs::remove(kReadyEvent);
    std::ofstream(kLifeMarker).close();

    logPath_ = std::string(kLogDirectory) + "/daemon-" + std::to_string(++starts_) + ".log";
    const int log =
        ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_NE(log, -1);
    status_.reset();
    pid_ = ::fork();
    if (pid_ == 0) {
        becomeDaemon(log, mask);
    }
    ::close(log);
    ASSERT_NE(pid_, -1);
}

bool Daemon::becomesReady(milliseconds timeout)
{
    return eventually([&] { return !isRunning() || fs::exists(kReadyEvent); }, timeout) &&
           isRunning();
}

void Daemon::startAndWait()
{
    start();
    ASSERT_TRUE(becomesReady()) << ::testing::PrintToString(log());
}

std::optional<int> Daemon::stop()
{
    fs::remove(kLifeMarker);
    return waitForEnd(kLongestStop);
}

std::optional<int> Daemon::waitForEnd(milliseconds timeout)
{
    if (!eventually([&] { return !isRunning(); }, timeout)) {
        return std::nullopt;
    }
    return status_;
}

bool Daemon::freeze()
{
    int status = 0;
    return isRunning() && ::kill(pid_, SIGSTOP) == 0 &&
           ::waitpid(pid_, &status, WUNTRACED) == pid_ && WIFSTOPPED(status);
}

void Daemon::kill()
{
    if (isRunning()) {
        ::kill(pid_, SIGKILL);
        waitForEnd(kLongestStop);
    }
}

void Daemon::end()
{
    if (!isRunning()) {
        return;
    }
#if QUILLON_SANITIZED
    EXPECT_EQ(stop(), 0) << ::testing::PrintToString(log());
#endif
    kill();
}

bool Daemon::isRunning()
{
    if (pid_ == -1) {
        return false;
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) {
        return true;
    }
    pid_ = -1;
    status_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    requireNoSanitizerReport();
    return false;
}

std::vector<std::string> Daemon::log() const
{
    return linesOf(logPath_, "");
}

std::vector<std::string> Daemon::logLinesWith(const std::string& text) const
{
    return linesOf(logPath_, text);
}

bool Daemon::logs(const std::string& text, milliseconds timeout) const
{
    return eventually([&] { return !logLinesWith(text).empty(); }, timeout);
}

std::size_t Daemon::openDescriptors() const
{
    return countEntries("/proc/" + std::to_string(pid_) + "/fd");
}

std::size_t Daemon::threads() const
{
    return countEntries("/proc/" + std::to_string(pid_) + "/task");
}

std::size_t Daemon::residentKilobytes() const
{
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string word; status >> word;) {
        std::size_t kilobytes = 0;
        if (word == "VmRSS:" && status >> kilobytes) {
            return kilobytes;
        }
    }
    return 0;
}

void Daemon::requireNoSanitizerReport() const
{
    std::ifstream file(logPath_);
    std::stringstream text;
    text << file.rdbuf();
    const std::string all = text.str();
    for (const char* mark : kSanitizerMarks) {
        const std::size_t place = all.find(mark);
        if (place != std::string::npos) {
            ADD_FAILURE() << "the daemon's sanitizer reports:\n" << all.substr(place, 6000);
            return;
        }
    }
}

}  // namespace quillon::test
