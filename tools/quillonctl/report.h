/// What quillonctl has to say, apart from how it is written.
#ifndef QUILLON_QUILLONCTL_REPORT_H
#define QUILLON_QUILLONCTL_REPORT_H

#include <quillon/client.h>

#include <string>

#include "exit-codes.h"

namespace quillon {

/// One call for each thing that happens. All times are seconds.
class Report
{
public:
    virtual ~Report() = default;

    /// An update that somebody else started had ended; no one had been told yet.
    virtual void earlierOutcome(const Progress& outcome) = 0;
    virtual void checking(const std::string& directory) = 0;
    virtual void estimated(const Estimate& estimate) = 0;
    virtual void started() = 0;
    /// Called at every poll; says nothing where nothing has changed.
    /// @param secondsLeft  by the estimate; 0 when the update takes longer than that
    virtual void progressed(int percent, int secondsLeft) = 0;
    virtual void finished(int seconds) = 0;
    virtual void state(const Progress& progress) = 0;
    virtual void stopped() = 0;
    virtual void error(ExitCode code, const std::string& text) = 0;
};

}  // namespace quillon

#endif
