#include "tools/quillonctl/standard-files.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <iostream>

#include "tools/quillonctl/exit-codes.h"

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

    struct sigaction action = {};
    sigaction(SIGPIPE, nullptr, &action);
    if (action.sa_handler == SIG_DFL) {
        action = {};
        action.sa_handler = goOn;
        action.sa_flags = SA_RESTART;
        sigaction(SIGPIPE, &action, nullptr);
    }
}

int closeOutput(int code)
{
    std::cout.flush();
    if (std::cout) {
        return code;
    }
    std::cerr << "quillonctl: standard output could not be written: its disk is full, or its "
                 "reader has gone";
    if (code != kExitSuccess) {
        std::cerr << " (the exit code would have been " << code << ")";
    }
    std::cerr << std::endl;
    return kExitSystem;
}

}  // namespace quillon
