#include <cmath>
#include <iostream>
#include <utility>

#include "tools/quillonctl/outside-text.h"
#include "tools/quillonctl/progress-display.h"
#include "tools/quillonctl/report.h"
#include "tools/quillonctl/text-table.h"

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

std::string describeLook(const RecordedModule& module)
{
    if (!module.finding) {
        return "not over";
    }
    return module.finding->result == 1
               ? "needs an update, about " + std::to_string(module.expectedSeconds) + " s"
               : phraseOf(*module.finding);
}

std::string describeUpdate(const RecordedModule& module)
{
    if (!module.finding) {
        return "not over";
    }
    return module.finding->result == 0
               ? "updated in " + std::to_string(std::lround(module.seconds)) + " s"
               : "failed: " + phraseOf(*module.finding);
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

    void estimated(const Estimate& estimate, bool isExplained) override
    {
        if (estimate.updateNeeded) {
            line("The update takes about " + std::to_string(estimate.seconds) + " s");
        } else {
            line(isExplained ? "Nothing to update"
                             : "Nothing to update: no image is newer, or none can be used; the "
                               "service's log says why");
        }
    }

    void looked(const std::vector<RecordedModule>& modules) override
    {
        table("STATE", modules, describeLook);
    }

    void started() override { line("The update has started"); }

    void updating(const std::string& module) override { line("Updating " + printable(module)); }

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

    void updated(const std::vector<RecordedModule>& modules) override
    {
        table("OUTCOME", modules, describeUpdate);
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

    void table(const char* heading, const std::vector<RecordedModule>& modules,
               std::string (*describe)(const RecordedModule& module))
    {
        std::vector<TableRow> rows = {{"NAME", "OFFERED", heading}};
        for (const RecordedModule& module : modules) {
            rows.push_back({module.name, module.offered.empty() ? "-" : module.offered,
                            printable(describe(module))});
        }
        for (const std::string& text : aligned(std::move(rows))) {
            line(text);
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
