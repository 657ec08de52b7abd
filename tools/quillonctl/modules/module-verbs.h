/// What the control layer can do, one function a verb.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/modules/module-report.h"
#include "tools/quillonctl/modules/update-watch.h"

namespace quillon {

/// Each verb finds and loads the device's modules, says everything through the report, and returns
/// what the program exits with. A broken module is shown as such and never ends a verb that others
/// can go on without; list, check and version load the modules in a child. Throws Failure.
/// Thread: the process must have no other one.
class ModuleVerbs
{
public:
    /// @param report        must outlive this object
    /// @param pollInterval  how often a running update is looked at
    /// @param times         of list, check and version
    ModuleVerbs(ModuleReport& report, std::chrono::milliseconds pollInterval,
                const ModuleTimes& times)
        : report_(report), pollInterval_(pollInterval), times_(times)
    {
    }

    ExitCode list();
    ExitCode check(const ModuleSource& source);
    ExitCode update(const std::string& name, const ModuleSource& source);
    ExitCode updateAll(const ModuleSource& source);
    ExitCode version(const std::string& name);
    ExitCode progress(const std::string& name);
    ExitCode download();
    /// Releases the update semaphore if whoever held it is no more.
    ExitCode unlock();

    /// Whether an update, or a question how far it is, is still running in a plug-in. The program
    /// must then end without tearing anything down.
    bool hasLateUpdate() const { return hasLateUpdate_ || hasStuckWatch_; }

private:
    /// Finds and loads the modules; before that, watches for requests and for foreign ends. A
    /// request that comes meanwhile ends the verb.
    /// @param isUpdate  the keyboard's signals are kept from the modules
    void open(bool isUpdate = false);
    /// Does work that loads modules in children only, and is then prepared for requests.
    template <typename Work>
    auto apart(Work work);
    template <typename Work>
    ExitCode recorded(const ModuleSource& source, Work work);
    /// Tidies up before an end that comes from another thread than the one that goes on here.
    void abandon();
    void abandonOnRequest();
    [[noreturn]] void endBecauseOf(const std::string& libName);
    void requireFreeLoader(const std::string& task);
    void prepareUpdates();
    std::vector<ModuleCheck> checkAll(const ModuleSource& source);
    static void keepPackages(const ModuleSource& source);
    void awaitPackages(const ModuleSource& source);
    void letPackagesGo() const;
    void tellWarnings();
    std::vector<ModuleUpdate> runMarked();
    std::vector<ModuleUpdate> runOneByOne(const ModuleSource& source);
    ModuleUpdate updateOne(FWUpdateSymbol& module, const ModuleSource& source);
    ModuleUpdate runProcess(FWUpdateSymbol& module, const ModuleSource& source);
    void finish(UpdateWatch& watch);
    void tellAllDone();
    void release(FWUpdateSymbol& module, const ModuleSource& source);
    void release(const ModuleChild& child);

    ModuleReport& report_;
    const std::chrono::milliseconds pollInterval_;
    const ModuleTimes times_;
    std::atomic<const ModuleSource*> source_{nullptr};  ///< whose packages may be mounted
    std::atomic<bool> hasPowerLock_{false};
    std::atomic<bool> isUpdating_{false};
    std::vector<std::string> warnings_;
    bool hasLateUpdate_ = false;
    bool hasStuckWatch_ = false;
};

}  // namespace quillon
