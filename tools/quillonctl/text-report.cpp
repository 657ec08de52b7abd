#include <iostream>

#include "tools/quillonctl/progress-display.h"
#include "tools/quillonctl/report.h"

namespace quillon {

namespace {

std::string describe(const Progress& progress)
{
    switch (progress.state) {
        case Progress::kRunning:
            return "The update is running, " + std::to_string(progress.percent) + " %";
        case Progress::kDone:
            return "The update finished";
        case Progress::kFailed:
            return "The update failed";
        default:
            return "No update is running";
    }
}

class TextReport final : public Report
{
public:
    TextReport(bool quiet, bool onTerminal) : quiet_(quiet), display_(onTerminal) {}

    void earlierOutcome(const Progress& outcome) override
    {
        line(outcome.state == Progress::kDone ? "An earlier update had finished"
                                              : "An earlier update had failed");
    }

    void checking(const std::string& directory) override { line("Checking " + directory); }

    void estimated(const Estimate& estimate) override
    {
        line(estimate.updateNeeded
                 ? "The update takes about " + std::to_string(estimate.seconds) + " s"
                 : "Nothing to update: no image is newer, or none can be used; the service's log "
                   "says why");
    }

    void started() override { line("The update has started"); }

    void progressed(int percent, int secondsLeft) override
    {
        if (!quiet_) {
            std::cout << display_.show(percent, secondsLeft, terminalWidth()) << std::flush;
        }
    }

    void finished(int seconds) override
    {
        line("The update finished after " + std::to_string(seconds) + " s");
    }

    void lookingAgain() override { line("Looking once more at the stick"); }

    void lookedAgain(Marks /*marks*/, const std::string& advice) override
    {
        if (!quiet_ && !advice.empty()) {
            std::cerr << "quillonctl: " << advice << std::endl;
        }
    }

    void state(const Progress& progress) override { line(describe(progress)); }

    void stopped() override { line("The update service was asked to take no more commands"); }

    void error(ExitCode /*code*/, const std::string& text) override
    {
        std::cout << display_.end() << std::flush;
        std::cerr << "quillonctl: " << text << std::endl;
    }

private:
    void line(const std::string& text)
    {
        if (!quiet_) {
            std::cout << display_.end() << text << std::endl;
        }
    }

    const bool quiet_;
    ProgressDisplay display_;
};

}  // namespace

std::unique_ptr<Report> makeTextReport(bool quiet, bool onTerminal)
{
    return std::make_unique<TextReport>(quiet, onTerminal);
}

}  // namespace quillon
