/// What the registry tells of its modules, kept for the program's reports.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "src/support/module-observer.h"
#include "tools/quillonctl/module-finding.h"
#include "tools/quillonctl/modules/layer-record.h"

namespace quillon {

/// One update of a module, as far as it has come.
struct ModuleRun
{
    std::chrono::steady_clock::time_point began;
    std::optional<ModuleFinding> end;  ///< nothing while it is running
    bool isLate = false;               ///< it was still running when its time was over
    bool isFlashing = false;           ///< its plug-in has been asked to install
    bool isGivenUp = false;            ///< its plug-in will not be asked any more
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

/// What a module is being asked.
enum class ModuleStep { kNone, kLoading, kVersion, kChecking };

/// Thread: any.
class ModuleEvents final : public ModuleObserver
{
public:
    /// The one object, which observes the registry from its first use on. It is never destroyed:
    /// an update that was given up may still end while the program does.
    static ModuleEvents& instance();

    void hear(const ModuleNews& news) override;
    void hearRun(const RunNews& news) override;
    void miss(ModuleEvent event) noexcept override;
    void missRun(RunEvent event) noexcept override;

    /// To be called before modules are loaded: keeps a record of all that is heard.
    void keepRecord() { record_.emplace(); }

    /// The static initialization of the module that is being loaded has raised an exception.
    /// @param what  a phrase
    void loadingRaised(const std::string& what);

    /// @name Before modules are loaded, for those who look after this process
    /// @{
    using OnStep = std::function<void(const std::string& libName, ModuleStep step)>;
    /// Calls `onStep` on the thread that asks, before each question to a module, and with kNone and
    /// no name after it. Updates have no steps.
    void onSteps(OnStep onStep) { onStep_ = std::move(onStep); }
    /// The module will not be loaded, and counts as not loadable.
    void leaveOut(const std::string& libName) { leftOut_.insert(libName); }
    /// @}

    void isAt(const std::string& libName, ModuleStep step) const;
    /// A library is about to be loaded from that file.
    /// @return false when it is that of a module to be left out
    bool mayLoad(const char* file);
    /// Safe in a signal handler, also while another thread loads a module.
    /// @param file  as the dynamic linker was given it
    /// @return null when no module has been loaded from there
    const char* moduleOf(const char* file) const;

    ModuleHistory of(const std::string& libName) const;

    /// Keeps a late update from beginning to flash: the program is about to tell how it ended, and
    /// then to end.
    /// @return whether nothing has been flashed, nor will be
    bool giveUp(const std::string& libName);

    /// Waits until the module's update is over, if one is running, but not beyond `end`.
    void awaitEnd(const std::string& libName, std::chrono::steady_clock::time_point end) const;

private:
    struct LoadedFile
    {
        const std::string path;
        const std::string module;
        const LoadedFile* next;
    };

    void note(const ModuleNews& news);
    ModuleHistory find(const std::string& libName) const;

    std::mutex recording_;
    std::optional<LayerRecord> record_;

    mutable std::mutex mutex_;
    mutable std::condition_variable hasEnded_;
    std::map<std::string, ModuleHistory> modules_;
    OnStep onStep_;
    std::set<std::string> leftOut_;
    std::atomic<const LoadedFile*> files_{nullptr};  // the latest first; none is ever removed
    std::string loading_;                            // the module that is being loaded; empty: none
    std::string loadingRaised_;  // until the registry has told which module it was
};

}  // namespace quillon
