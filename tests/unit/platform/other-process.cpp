#include "other-process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "support/files.h"
#include "support/wait.h"

namespace {

namespace fs = std::filesystem;

bool sleeps(const fs::path& thread)
{
    const std::string status = quillon::test::readAll(thread / "stat");
    const std::size_t name = status.rfind(") ");
    return name != status.npos && status[name + 2] == 'S';
}

bool othersSleep()
{
    const std::string own = std::to_string(gettid());
    const fs::directory_iterator threads("/proc/self/task");
    return std::all_of(begin(threads), end(threads), [&own](const fs::directory_entry& thread) {
        return thread.path().filename() == own || sleeps(thread.path());
    });
}

}  // namespace

bool forkedChildEnds()
{
    quillon::test::eventually(&othersSleep);
    const pid_t child = fork();
    if (child == 0) {
        std::exit(0);
    }
    int status = 0;
    const bool hasEnded =
        quillon::test::eventually([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!hasEnded) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return hasEnded && !WIFSIGNALED(status);
}

OtherProcess::OtherProcess(const Work& work)
{
    EXPECT_EQ(pipe2(pipe_, O_CLOEXEC), 0);
    child_ = fork();
    if (child_ == 0) {
        waitForWord();
        std::exit(work(*this));
    }
}

OtherProcess::~OtherProcess()
{
    if (child_ > 0) {
        killNow();
    }
    close(pipe_[0]);
    close(pipe_[1]);
}

void OtherProcess::goOn()
{
    EXPECT_EQ(write(pipe_[1], "x", 1), 1);
}

int OtherProcess::waitForEnd()
{
    int status = -1;
    EXPECT_EQ(waitpid(child_, &status, 0), child_);
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void OtherProcess::killNow()
{
    kill(child_, SIGKILL);
    EXPECT_EQ(waitForEnd(), -1);
}

void OtherProcess::waitForWord()
{
    char byte = 0;
    if (read(pipe_[0], &byte, 1) != 1) {
        _exit(99);
    }
}
