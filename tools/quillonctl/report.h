/// What quillonctl has to say, apart from how it is written.
#pragma once

#include <quillon/client.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/recorded-run.h"

namespace quillon {

/// What a second look at the stick, after the end of an update, has told of the modules that the
/// service has marked as needing an update.
enum class Marks {
    kRenewed,      ///< none is left
    kStillNeeded,  ///< of a module that still needs an update from the stick
    kStickGone,    ///< left as they were: images were missing
    kUnknown       ///< the look failed, or nobody knows whether the images were still there
};

/// One call for each thing that happens. All times are seconds.
class Report
{
public:
    virtual ~Report() = default;

    /// An update that somebody else started had ended; no one had been told yet.
    virtual void earlierOutcome(const Progress& outcome) = 0;
    virtual void checking(const std::string& directory) = 0;
    /// What has been found in the stick's images; only where the service keeps records.
    virtual void looked(const std::vector<RecordedModule>& modules) = 0;
    /// @param isExplained  whether looked() has told why
    virtual void estimated(const Estimate& estimate, bool isExplained) = 0;
    virtual void started() = 0;
    /// The next module's update has begun; only where the service keeps records.
    virtual void updating(const std::string& module) = 0;
    /// Called at every poll; says nothing where nothing has changed.
    /// @param secondsLeft  by the estimate; 0 when the update takes longer than that
    virtual void progressed(int percent, int secondsLeft) = 0;
    virtual void finished(int seconds) = 0;
    /// How the modules have fared whose update was begun; only where the service keeps records.
    virtual void updated(const std::vector<RecordedModule>& modules) = 0;
    /// The service is asked for one more estimate, since an update has ended.
    virtual void lookingAgain() = 0;
    /// @param advice  what it means and what is to be done; empty for Marks::kRenewed
    virtual void lookedAgain(Marks marks, const std::string& advice) = 0;
    virtual void state(const Progress& progress) = 0;
    virtual void stopped() = 0;
    virtual void error(ExitCode code, const std::string& text) = 0;
};

/// Reports for people, on standard output, and errors on standard error. Each line is out before
/// the call returns.
/// @param quiet       say nothing but errors
/// @param onTerminal  standard output is a terminal that can redraw a line
std::unique_ptr<Report> makeTextReport(bool quiet, bool onTerminal);

/// Reports for programs: one JSON object per line on standard output, errors included. Every object
/// has the member "event"; quillonctl(1) lists the events and their other members. Each line is out
/// before the call returns.
std::unique_ptr<Report> makeJsonReport();

}  // namespace quillon
