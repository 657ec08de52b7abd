/// What the registry tells of its modules, kept for the program's reports.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "src/support/module-observer.h"
#include "tools/quillonctl/module-finding.h"

namespace quillon {

/// One update of a module, as far as it has come.
struct ModuleRun
{
    std::chrono::steady_clock::time_point began;
    std::optional<ModuleFinding> end;  ///< nothing while it is running
    bool isLate = false;               ///< it was still running when its time was over
};

/// What is known of a module.
struct ModuleHistory
{
    ModuleFinding loading;         ///< what loading it came to
    bool locksLoader = false;      ///< its static initialization has raised an exception
    ModuleFinding check;           ///< what its latest check came to
    std::optional<ModuleRun> run;  ///< its latest update, from the start of its thread or the end
                                   ///< of its time on, whichever comes first

    bool isUpdating() const { return run && !run->end; }
};

/// Thread: any.
class ModuleEvents final : public ModuleObserver
{
public:
    /// The one object, which observes the registry from its first use on. It is never destroyed:
    /// an update that was given up may still end while the program does.
    static ModuleEvents& instance();

    void hear(const ModuleNews& news) override;

    /// The static initialization of the module that is being loaded has raised an exception.
    /// @param what  a phrase
    void loadingRaised(const std::string& what);

    ModuleHistory of(const std::string& libName) const;

    /// Waits until the module's update is over, if one is running, but not beyond `end`.
    void awaitEnd(const std::string& libName, std::chrono::steady_clock::time_point end) const;

private:
    ModuleHistory find(const std::string& libName) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable hasEnded_;
    std::map<std::string, ModuleHistory> modules_;
    std::string loadingRaised_;  // until the registry has told which module it was
};

}  // namespace quillon
