/// Reports for programs.
#ifndef QUILLON_QUILLONCTL_JSON_REPORT_H
#define QUILLON_QUILLONCTL_JSON_REPORT_H

#include <json/value.h>

#include "tools/quillonctl/report.h"

namespace quillon {

/// Writes one JSON object per line to standard output, errors included. Every object has the
/// member "event"; quillonctl(1) lists the events and their other members. Each line is out before
/// the call returns.
class JsonReport : public Report
{
public:
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
    int lastPercent_ = -1;
};

}  // namespace quillon

#endif
