#include "tools/quillonctl/progress-display.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace quillon {

namespace {

constexpr int kUsualWidth = 80;
constexpr int kSmallestBar = 5;
constexpr int kLargestBar = 50;
constexpr int kBrackets = 3;  // "[", "]" and a blank

std::string bar(int percent, int size)
{
    const int filled = size * std::clamp(percent, 0, 100) / 100;
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(size - filled), '.') + "] ";
}

std::string padded(int percent)
{
    const std::string digits = std::to_string(percent);
    return std::string(digits.size() < 3 ? 3 - digits.size() : 0, ' ') + digits;
}

std::string barLine(int percent, int secondsLeft, int columns)
{
    const std::string numbers = padded(percent) + " %, " + describeTimeLeft(secondsLeft);
    const int usable = std::max(columns - 1, 0);  // a full line would wrap
    const int room = usable - static_cast<int>(numbers.size()) - kBrackets;
    if (room < kSmallestBar) {
        return numbers.substr(0, static_cast<std::size_t>(usable));
    }
    return bar(percent, std::min(room, kLargestBar)) + numbers;
}

}  // namespace

std::string describeTimeLeft(int secondsLeft)
{
    if (secondsLeft <= 0) {
        return "longer than expected";
    }
    if (secondsLeft < 120) {
        return "about " + std::to_string(secondsLeft) + " s left";
    }
    return "about " + std::to_string(secondsLeft / 60 + secondsLeft % 60 / 30) + " min left";
}

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

std::string ProgressDisplay::show(int percent, int secondsLeft, int columns)
{
    if (onTerminal_) {
        const std::string line = barLine(percent, secondsLeft, columns);
        if (line == shown_) {
            return {};
        }
        shown_ = line;
        return "\r" + line + "\x1b[K";
    }
    if (percent == lastPercent_) {
        return {};
    }
    lastPercent_ = percent;
    return std::to_string(percent) + " % (" + describeTimeLeft(secondsLeft) + ")\n";
}

std::string ProgressDisplay::end()
{
    if (shown_.empty()) {
        return {};
    }
    shown_.clear();
    return "\r\x1b[K";
}

}  // namespace quillon
