#include "tools/shared/standard-files.h"

#include <fcntl.h>
#include <unistd.h>

#include <iostream>

#include "tools/shared/signals.h"

namespace quillon {

namespace {

void takeNumber(int number, int mode)
{
    if (fcntl(number, F_GETFD) != -1) {
        return;
    }
    // The lowest free number is this one, since those below are open.
    static_cast<void>(open("/dev/null", mode));
}

/// Not SIG_IGN, which the programs that a module starts would inherit.
void goOn(int /*signal*/)
{
}

}  // namespace

void prepareStandardFiles()
{
    takeNumber(STDIN_FILENO, O_RDONLY);
    takeNumber(STDOUT_FILENO, O_RDONLY);
    takeNumber(STDERR_FILENO, O_WRONLY);

    if (handlerOf(SIGPIPE) == SIG_DFL) {
        onSignal(SIGPIPE, goOn);
    }
}

int closeOutput(const char* program, int code, int codeOfLoss)
{
    std::cout.flush();
    if (std::cout) {
        return code;
    }
    std::cerr << program
              << ": standard output could not be written: its disk is full, or its reader has gone";
    if (code != 0) {
        std::cerr << " (the exit code would have been " << code << ")";
    }
    std::cerr << std::endl;
    return codeOfLoss;
}

}  // namespace quillon
