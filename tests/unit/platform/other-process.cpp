#include "other-process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

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
