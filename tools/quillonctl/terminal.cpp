#include "tools/quillonctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace quillon {

namespace {

constexpr int kUsualWidth = 80;

}  // namespace

bool canRedraw()
{
    const char* terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && terminal != nullptr && std::string(terminal) != "dumb";
}

int terminalWidth()
{
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kUsualWidth;
}

}  // namespace quillon
