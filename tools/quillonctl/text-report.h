/// Reports for people.
#ifndef QUILLON_QUILLONCTL_TEXT_REPORT_H
#define QUILLON_QUILLONCTL_TEXT_REPORT_H

#include "tools/quillonctl/progress-display.h"
#include "tools/quillonctl/report.h"

namespace quillon {

/// Writes to standard output, errors to standard error. Each line is out before the call returns.
class TextReport : public Report
{
public:
    /// @param quiet       say nothing but errors
    /// @param onTerminal  standard output is a terminal that can redraw a line
    TextReport(bool quiet, bool onTerminal) : quiet_(quiet), display_(onTerminal) {}

    void earlierOutcome(const Progress& outcome) override;
    void checking(const std::string& directory) override;
    void estimated(const Estimate& estimate) override;
    void started() override;
    void progressed(int percent, int secondsLeft) override;
    void finished(int seconds) override;
    void lookingAgain() override;
    void lookedAgain(Marks marks, const std::string& advice) override;
    void state(const Progress& progress) override;
    void stopped() override;
    void error(ExitCode code, const std::string& text) override;

private:
    void line(const std::string& text);

    const bool quiet_;
    ProgressDisplay display_;
};

}  // namespace quillon

#endif
