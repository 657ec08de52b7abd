/// What the control layer has to say.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "tools/quillonctl/modules/module-check.h"
#include "tools/quillonctl/modules/module-probe.h"
#include "tools/quillonctl/modules/slot-holders.h"
#include "tools/quillonctl/output.h"
#include "tools/shared/text-table.h"

namespace quillon {

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
    std::string running;   ///< afterwards; empty when not known
    std::string reason;    ///< a phrase; empty where the outcome says it all. Of an update that has
                           ///< succeeded: what is strange about that
    std::string remedy{};  ///< what to do about it, a line; empty for nothing
    bool isForOthers = false;  ///< it failed because another control layer is updating
};

struct ModuleDownload
{
    std::string name;
    bool downloaded = false;
    std::string reason;  ///< why not
};

/// One call for each thing that happens. While a run goes on its calls come from another thread,
/// one at a time. Programs get the verb's result, or the error that ended it, in one line; an
/// update that has to wait and warnings write lines before that. Texts from outside are made fit to
/// be shown.
class ModuleReport
{
public:
    /// @param output  must outlive this object
    /// @param isPaced  as it is for people whose terminal cannot redraw a line: progress is shown
    ///                 once a second at most
    ModuleReport(Output& output, bool isPaced) : output_(output), isPaced_(isPaced) {}

    /// See Output. Thread: any.
    static bool isRead() { return Output::isRead(); }

    void modules(const std::vector<ModuleEntry>& entries);
    void checked(const ModuleSource& source, const std::vector<ModuleCheck>& checks);
    void version(const ModuleEntry& entry);
    void progress(const std::string& name, unsigned int percent);

    /// @name During an update
    /// Nothing is written while nobody reads: a blocked write would hold up the update's end, and
    /// everybody who waits for it.
    /// @{
    /// The semaphore is taken, or the packages are. Called again when something has changed.
    /// @param holders  who could have it; nobody: the semaphore has been left behind
    void waitingForOthers(const SlotHolders& holders);
    void updating(const std::string& name);
    /// Called at every poll; says nothing where nothing has changed.
    /// @param secondsLeft  by the expected time; 0 when the update takes longer than that
    void progressed(int percent, int secondsLeft);
    void waitingForLate(const std::string& name);
    /// @}

    /// @param code  what the program exits with
    void updated(const ModuleSource& source, const std::vector<ModuleUpdate>& updates,
                 ExitCode code);
    void downloading(std::size_t packages);
    void downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code);

    /// @param released  false: nothing was locked
    void unlocked(bool released);

    /// Something that went wrong beside the point.
    void warning(const std::string& text);
    void error(ExitCode code, const std::string& text);

private:
    void line(const std::string& text);
    void table(std::vector<TableRow> rows);
    void complainToPeople(const std::string& text);
    void complainOf(const std::string& remedy);

    Output& output_;
    const bool isPaced_;
    std::chrono::steady_clock::time_point nextProgress_;
};

}  // namespace quillon
