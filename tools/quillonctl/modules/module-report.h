/// What the control layer has to say, apart from how it is written.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/modules/module-check.h"
#include "tools/quillonctl/modules/slot-holders.h"

namespace quillon {

struct ModuleEntry
{
    std::string name;
    ModuleKind kind = ModuleKind::kUnusable;
    std::string running;       ///< empty when not known
    std::string firmwareName;  ///< of a firmware module
    std::string package;       ///< identifier of its package, of a firmware module
    bool hasPackage = false;   ///< whether the package has been downloaded
    std::string reason;        ///< why it is unusable
};

enum class Outcome {
    kUpdated,
    kNotNeeded,
    kNothingOffered,
    kFailed,
    kTimedOut,  ///< the registry gave up waiting
    kNotBegun,  ///< the program was asked to end before
    kByNameOnly,
    kUnusable
};

struct ModuleUpdate
{
    std::string name;
    Outcome outcome = Outcome::kUnusable;
    std::string running;  ///< afterwards; empty when not known
    std::string reason;   ///< a phrase; empty where the outcome says it all
};

struct ModuleDownload
{
    std::string name;
    bool downloaded = false;
    std::string reason;  ///< why not
};

/// One call for each thing that happens. While a run goes on its calls come from another thread,
/// one at a time.
class ModuleReport
{
public:
    virtual ~ModuleReport() = default;

    virtual void modules(const std::vector<ModuleEntry>& entries) = 0;
    virtual void checked(const ModuleSource& source, const std::vector<ModuleCheck>& checks) = 0;
    virtual void version(const ModuleEntry& entry) = 0;
    virtual void progress(const std::string& name, unsigned int percent) = 0;

    /// @name During an update
    /// @{
    /// The semaphore is taken. Called again when something has changed.
    /// @param holders  who could have it; nobody: it has been left behind
    virtual void waitingForOthers(const SlotHolders& holders) = 0;
    virtual void updating(const std::string& name) = 0;
    /// Called at every poll; says nothing where nothing has changed.
    /// @param secondsLeft  by the expected time; 0 when the update takes longer than that
    virtual void progressed(int percent, int secondsLeft) = 0;
    virtual void waitingForLate(const std::string& name) = 0;
    /// @}

    /// @param code  what the program exits with
    virtual void updated(const ModuleSource& source, const std::vector<ModuleUpdate>& updates,
                         ExitCode code) = 0;
    virtual void downloading(std::size_t packages) = 0;
    virtual void downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code) = 0;

    /// @param released  false: nothing was locked
    virtual void unlocked(bool released) = 0;

    /// Something that went wrong beside the point.
    virtual void warning(const std::string& text) = 0;
    virtual void error(ExitCode code, const std::string& text) = 0;
};

/// Reports for people, on standard output, and errors and warnings on standard error. Each line is
/// out before the call returns.
/// @param quiet       say nothing but errors and warnings
/// @param onTerminal  standard output is a terminal that can redraw a line
std::unique_ptr<ModuleReport> makeModuleTextReport(bool quiet, bool onTerminal);

/// Reports for programs: one JSON object, in one line, on standard output: the verb's result, or
/// the error that ended it. An update that has to wait writes one for that before. Each has the
/// member "event"; quillonctl(1) lists the events and their other members. Warnings go to standard
/// error.
std::unique_ptr<ModuleReport> makeModuleJsonReport();

}  // namespace quillon
