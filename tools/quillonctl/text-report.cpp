#include "tools/quillonctl/text-report.h"

#include <iostream>

#include "tools/quillonctl/terminal.h"

namespace quillon {

namespace {

const char* describe(Progress::State state)
{
    switch (state) {
        case Progress::kRunning:
            return "The update is running";
        case Progress::kDone:
            return "The update finished";
        case Progress::kFailed:
            return "The update failed";
        default:
            return "No update is running";
    }
}

}  // namespace

void TextReport::line(const std::string& text)
{
    if (!quiet_) {
        std::cout << display_.end() << text << std::endl;
    }
}

void TextReport::earlierOutcome(const Progress& outcome)
{
    line(outcome.state == Progress::kDone ? "An earlier update had finished"
                                          : "An earlier update had failed");
}

void TextReport::checking(const std::string& directory)
{
    line("Checking " + directory);
}

void TextReport::estimated(const Estimate& estimate)
{
    line(estimate.updateNeeded ? "The update takes about " + std::to_string(estimate.seconds) + " s"
                               : "Nothing to update: no image is newer, or none can be used; the "
                                 "service's log says why");
}

void TextReport::started()
{
    line("The update has started");
}

void TextReport::progressed(int percent, int secondsLeft)
{
    if (!quiet_) {
        std::cout << display_.show(percent, secondsLeft, terminalWidth()) << std::flush;
    }
}

void TextReport::finished(int seconds)
{
    line("The update finished after " + std::to_string(seconds) + " s");
}

void TextReport::lookingAgain()
{
    line("Looking once more at the stick");
}

void TextReport::lookedAgain(Marks /*marks*/, const std::string& advice)
{
    if (!quiet_ && !advice.empty()) {
        std::cerr << "quillonctl: " << advice << std::endl;
    }
}

void TextReport::state(const Progress& progress)
{
    const bool running = progress.state == Progress::kRunning;
    line(describe(progress.state) +
         (running ? ", " + std::to_string(progress.percent) + " %" : std::string()));
}

void TextReport::stopped()
{
    line("The update service was asked to take no more commands");
}

void TextReport::error(ExitCode /*code*/, const std::string& text)
{
    std::cout << display_.end() << std::flush;
    std::cerr << "quillonctl: " << text << std::endl;
}

}  // namespace quillon
