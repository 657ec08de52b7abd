/// What the registry tells of its modules, kept for the program's reports.
#ifndef QUILLON_QUILLONCTL_MODULE_EVENTS_H
#define QUILLON_QUILLONCTL_MODULE_EVENTS_H

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "src/support/module-observer.h"

namespace quillon {

/// A result and why it is so.
struct ModuleFinding
{
    int result = 0;
    ModuleReason reason = ModuleReason::kNone;
    std::string detail;
};

/// One update of a module, as far as it has come.
struct ModuleRun
{
    std::chrono::steady_clock::time_point began;
    std::optional<ModuleFinding> end;  ///< nothing while it is running
    bool isLate = false;               ///< it was still running when its time was over
};

/// Thread: any.
class ModuleEvents final : public ModuleObserver
{
public:
    /// The one object, which observes the registry from its first use on. It is never destroyed:
    /// an update that was given up may still end while the program does.
    static ModuleEvents& instance();

    void hear(const ModuleNews& news) override;

    /// What loading the module came to.
    ModuleFinding loading(const std::string& libName) const;
    /// What the latest check of the module came to.
    ModuleFinding check(const std::string& libName) const;
    /// The module's latest update; nothing when none has begun.
    std::optional<ModuleRun> run(const std::string& libName) const;

    /// Waits until the module's update is over, if one is running.
    /// @return false when it is still running at the end of the time
    bool awaitEnd(const std::string& libName, std::chrono::steady_clock::time_point end) const;

private:
    struct Known
    {
        ModuleFinding loading;
        ModuleFinding check;
        std::optional<ModuleRun> run;
    };

    Known known(const std::string& libName) const;
    bool isRunning(const std::string& libName) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable hasEnded_;
    std::map<std::string, Known> modules_;
};

/// A reason as a phrase for people: "its package cannot be mounted".
std::string phraseOf(const ModuleFinding& finding);

}  // namespace quillon

#endif
