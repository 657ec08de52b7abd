/// The progress of an update as text, and the terminal that shows it.
#pragma once

#include <string>

namespace quillon {

/// @return "about 12 s left", "about 3 min left", or for 0 "longer than expected"
std::string describeTimeLeft(int secondsLeft);

/// Whether standard output is a terminal that can draw a line over.
bool canRedraw();

/// Columns of that terminal; 80 when they are not known.
int terminalWidth();

/// Turns each poll's numbers into what has to be written to standard output; writes nothing itself.
class ProgressDisplay
{
public:
    /// @param onTerminal  true for a bar that is drawn over and over in one line, false for plain
    ///                    lines
    explicit ProgressDisplay(bool onTerminal) : onTerminal_(onTerminal) {}

    /// @param columns  the terminal's width; the bar never fills the last column, and leaves itself
    ///                 out where the numbers need all the room. Without a terminal not looked at.
    /// @return what to write; empty when it would only repeat itself. A plain line comes once for
    ///         each percentage.
    std::string show(int percent, int secondsLeft, int columns);

    /// @return what takes the bar off the screen, so that an ordinary line can follow; empty when
    ///         there is none
    std::string end();

    /// Forgets what was shown, since what follows is another update's.
    void restart() { lastPercent_ = -1; }

private:
    const bool onTerminal_;
    int lastPercent_ = -1;
    std::string shown_;
};

}  // namespace quillon
