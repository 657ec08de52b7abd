#include "tools/quillonctl/modules/module-verbs.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <future>
#include <map>
#include <memory>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/app-binary-manager.h"
#include "platform/power.h"
#include "platform/privileged.h"
#include "src/fw-update-common.h"
#include "src/support/paths.h"
#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-events.h"
#include "tools/quillonctl/modules/packages-lock.h"
#include "tools/quillonctl/modules/update-slot.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/shared/standard-files.h"

namespace quillon {

namespace {

constexpr int kPowerLock = 2;  // the registry's own

FWUpdateSymbolManager& manager()
{
    return *FWUpdateSymbolManager::getInstance();
}

bool isAny(const std::vector<ModuleUpdate>& updates, Outcome outcome)
{
    return std::any_of(updates.begin(), updates.end(),
                       [&](const ModuleUpdate& update) { return update.outcome == outcome; });
}

ExitCode exitCodeOf(const std::vector<ModuleUpdate>& updates)
{
    if (isAny(updates, Outcome::kNotBegun)) {
        return UpdateSlot::instance().trouble().empty() ? kExitInterrupted : kExitSystem;
    }
    if (isAny(updates, Outcome::kFailed)) {
        const bool isForOthers =
            std::all_of(updates.begin(), updates.end(), [](const ModuleUpdate& update) {
                return update.outcome != Outcome::kFailed || update.isForOthers;
            });
        return isForOthers ? kExitAlreadyUpdating : kExitUpdateFailed;
    }
    return isAny(updates, Outcome::kTimedOut) ? kExitTimedOut : kExitSuccess;
}

/// What became of a module that needed no update, or could not have one.
ModuleUpdate withoutUpdate(const ModuleCheck& check)
{
    static const std::map<Decision, Outcome> kOutcomes = {
        {Decision::kNeeded, Outcome::kFailed},
        {Decision::kUpToDate, Outcome::kNotNeeded},
        {Decision::kNothingOffered, Outcome::kNothingOffered},
        {Decision::kUnsound, Outcome::kFailed},
        {Decision::kByNameOnly, Outcome::kByNameOnly},
        {Decision::kUnusable, Outcome::kUnusable},
    };
    return {check.name,   kOutcomes.at(check.decision),      check.running, check.reason,
            check.remedy, check.code == kExitAlreadyUpdating};
}

ModuleUpdate notBegun(const FWUpdateSymbol& module)
{
    return {module.getLibName(), Outcome::kNotBegun, "", UpdateSlot::instance().trouble()};
}

Failure noModule(const std::string& name)
{
    return {kExitUnknownModule, "there is no module " + name};
}

Failure unusable(const std::string& name, const std::string& reason)
{
    return {kExitUnusableModule, "the module " + name + " is unusable: " + reason};
}

FWUpdateSymbol& usableModule(const std::string& name)
{
    for (FWUpdateSymbol& module : manager().modules()) {
        if (module.getLibName() != name) {
            continue;
        }
        if (kindOf(module) == ModuleKind::kUnusable) {
            throw unusable(name, defectOf(module));
        }
        return module;
    }
    throw noModule(name);
}

void endDownload(const std::string& /*identifier*/, int status, void* user)
{
    const std::unique_ptr<std::promise<int>> end(static_cast<std::promise<int>*>(user));
    end->set_value(status);
}

/// Has the platform download a package.
/// @return the status that it gives at the end, 0 meaning downloaded; not valid where it does not
///         accept the request
std::future<int> startDownload(const std::string& package)
{
    auto end = std::make_unique<std::promise<int>>();
    std::future<int> status = end->get_future();
    if (!appbinaryManager::ABM_DownloadAppBinary(endDownload, end.get(), package)) {
        return {};
    }
    static_cast<void>(end.release());  // endDownload() has it
    return status;
}

/// Waits for it.
ModuleDownload resultOfDownload(const std::string& module, std::future<int>& end)
{
    if (!end.valid()) {
        return {module, false, "the platform did not accept the request"};
    }
    const int status = end.get();
    if (status != 0) {
        return {module, false,
                "status " + std::to_string(status) + ", the log (" + logOf("QUILLON-PLATFORM") +
                    ") says why"};
    }
    return {module, true, ""};
}

/// As raisedBy, for a call that waits for the update semaphore.
/// @param[out] isInterrupted  whether the waiting was
template <typename Call>
std::string raisedByUpdate(Call call, bool& isInterrupted)
{
    return raisedBy([&] {
        try {
            call();
        } catch (const UpdateInterrupted&) {
            isInterrupted = true;
        }
    });
}

/// How the update of a module ended.
/// @param before  the version that it ran; empty when not known
ModuleUpdate outcomeOf(const FWUpdateSymbol& module, const std::string& before)
{
    const std::string name = module.getLibName();
    const ModuleHistory history = ModuleEvents::instance().of(name);
    if (history.isUpdating() && ModuleEvents::instance().giveUp(name)) {
        return {name, Outcome::kTimedOut, "", "its time was over before anything was flashed"};
    }
    if (history.isUpdating()) {
        // Its plug-in is busy: nothing is asked.
        return {name, Outcome::kTimedOut, "", phraseOfLate({})};
    }
    const std::string running = runningVersion(module).value_or("");
    if (!history.run) {
        return {name, Outcome::kFailed, running, phraseOf(ModuleFinding())};
    }
    const ModuleFinding& end = *history.run->end;
    const bool isInstalled = end.result == 0;
    if (history.run->isLate) {
        return {name, Outcome::kTimedOut, running, phraseOfLate(end)};
    }
    if (end.reason == ModuleReason::kNotMounted) {
        const MountTrouble trouble = mountTroubleOf(module);
        return {name,           Outcome::kFailed, running,
                trouble.reason, trouble.remedy,   trouble.code == kExitAlreadyUpdating};
    }
    if (!isInstalled) {
        return {name, Outcome::kFailed, running, phraseOf(end)};
    }
    if (end.reason == ModuleReason::kUpToDate) {
        return {name, Outcome::kNotNeeded, running, ""};
    }
    return {name, Outcome::kUpdated, running,
            phraseOfSuccess(before, running, module.getInformation().version)};
}

/// Ends the registry's run, which has not come to its own end.
void breakRunOff()
{
    device_power_unlock_state(kPowerLock);
    static_cast<void>(std::remove(paths::kUpdateList));
}

}  // namespace

void ModuleVerbs::abandon()
{
    if (hasPowerLock_) {
        breakRunOff();
    }
    // Whoever updates beside this program may be flashing from one of the packages.
    const ModuleSource* source = source_;
    if (source != nullptr && PackagesLock::instance().has() &&
        UpdateSlot::instance().otherUpdater().empty()) {
        releasePackages(*source);
    }
}

void ModuleVerbs::abandonOnRequest()
{
    const Failure end = UpdateSlot::instance().updatesBegun() == 0
                            ? UpdateSlot::instance().interruption()
                            : Failure{kExitInterrupted, "interrupted; what was begun is over"};
    report_.error(end.code, end.text);
    abandon();
    static_cast<void>(UpdateSlot::instance().giveBack());
}

/// On whichever thread the module has called exit.
void ModuleVerbs::endBecauseOf(const std::string& libName)
{
    const std::string who = libName.empty() ? "a module" : "the module " + libName;
    const ExitCode code = isUpdating_ ? kExitUpdateFailed : kExitUnusableModule;
    report_.error(code, who + " has ended the program");
    abandon();
    static_cast<void>(UpdateSlot::instance().giveBack());
    endAtOnce(closeOutput("quillonctl", code, kExitSystem));
}

void ModuleVerbs::open(bool isUpdate)
{
    try {
        watchForRequests([this] { abandonOnRequest(); });
        if (isUpdate) {
            keepKeyboardFromModules();
            ModuleEvents::instance().keepRecord();
        }
        static_cast<void>(FWUpdateSymbolManager::getInstance());
        watchForForeignEnd([this](const std::string& libName) { endBecauseOf(libName); });
    } catch (const std::system_error& error) {
        throw noThread(error);
    }
    openRegistry();
    if (isInterrupted()) {
        throw UpdateSlot::instance().interruption();
    }
}

template <typename Work>
auto ModuleVerbs::apart(Work work)
{
    struct Afterwards
    {
        RequestsHeld held;
        ~Afterwards()
        {
            try {
                watchForRequests([] {});
            } catch (const std::system_error&) {
                // A request then ends the program as it ends any other.
            }
        }
    };
    auto result = [&] {
        const Afterwards afterwards;
        return work();
    }();
    if (isInterrupted()) {
        throw UpdateSlot::instance().interruption();
    }
    return result;
}

ExitCode ModuleVerbs::list()
{
    const std::vector<ModuleEntry> entries = apart([&] { return listModules(times_); });
    takeOverTheEnd();
    report_.modules(entries);
    return kExitSuccess;
}

std::vector<ModuleCheck> ModuleVerbs::checkAll(const ModuleSource& source)
{
    try {
        return checkModules(source);
    } catch (const Failure&) {
        takeOverTheEnd();
        releasePackages(source);
        throw;
    }
}

/// To look at a package, the registry mounts it anew, also one that somebody is flashing from.
/// Throws Failure when somebody else is at the packages.
void ModuleVerbs::keepPackages(const ModuleSource& source)
{
    if (source.type != UPDATE_EMP) {
        return;
    }
    PackagesLock& packages = PackagesLock::instance();
    const bool isTaken = packages.take();
    const std::string updater = UpdateSlot::instance().otherUpdater();
    if (!updater.empty()) {
        packages.giveUp();
        throw Failure{kExitAlreadyUpdating,
                      "another control layer is updating: " + updater +
                          "; \"quillonctl progress --follow\" shows how far it is"};
    }
    if (!isTaken) {
        throw Failure{kExitAlreadyUpdating,
                      phraseOfPackages(PackagesLock::holders()) + "; repeat the command after it"};
    }
}

/// The registry looks at packages before it waits for the semaphore, see keepPackages().
void ModuleVerbs::awaitPackages(const ModuleSource& source)
{
    if (source.type != UPDATE_EMP) {
        return;
    }
    UpdateSlot& slot = UpdateSlot::instance();
    slot.explainTo([this](const SlotHolders& holders) { report_.waitingForOthers(holders); });
    try {
        slot.awaitPackages();
    } catch (const UpdateInterrupted&) {
        throw slot.interruption();
    }
    slot.explainTo({});
}

ExitCode ModuleVerbs::check(const ModuleSource& source)
{
    keepPackages(source);
    ModuleChild child(times_);
    std::vector<ModuleCheck> checks;
    try {
        checks = apart([&] { return checkModulesApart(child, source); });
    } catch (const Failure&) {
        takeOverTheEnd();
        release(child);
        throw;
    }
    takeOverTheEnd();
    release(child);
    if (const std::string trouble = troubleOfList();
        source.type == UPDATE_EMP && !trouble.empty()) {
        report_.warning(trouble);
    }
    report_.checked(source, checks);
    if (isNoneUsable(checks)) {
        return kExitUnusableModule;
    }
    const bool isAnyNeeded =
        std::any_of(checks.begin(), checks.end(),
                    [](const ModuleCheck& check) { return check.decision == Decision::kNeeded; });
    if (isAnyNeeded) {
        return kExitSuccess;
    }
    const ExitCode trouble = mountTroubleIn(checks);
    return trouble != kExitSuccess ? trouble : kExitNothingToUpdate;
}

/// Refuses to start threads while the dynamic linker's lock is held for ever.
/// @param task  what the verb does, as a participle
void ModuleVerbs::requireFreeLoader(const std::string& task)
{
    if (const auto name = moduleThatLocksLoader()) {
        throw Failure{kExitUnusableModule,
                      "nothing can be " + task + ": the module " + *name +
                          " has raised an exception while it was loaded, and no thread could work "
                          "beside it; move it out of " +
                          paths::kModules};
    }
}

/// The registry does not tell a missing semaphore from a failed update.
void ModuleVerbs::prepareUpdates()
{
    requireFreeLoader("updated");
    isUpdating_ = true;
    UpdateSlot::instance().open();
    holdOffSignals();
}

void ModuleVerbs::release(FWUpdateSymbol& module, const ModuleSource& source)
{
    // What is being flashed from stays mounted.
    if (source.type != UPDATE_EMP ||
        ModuleEvents::instance().of(module.getLibName()).isUpdating()) {
        return;
    }
    if (!releasePackage(module)) {
        warnings_.push_back("the package of " + module.getLibName() +
                            " stays mounted; if it is in use, root learns by whom from: fuser "
                            "-vm " +
                            paths::kMountedPackages + module.getEMPName());
    }
}

/// Unmounts what the check has mounted, and says what stays. Others do not wait for whoever reads
/// that.
void ModuleVerbs::release(const ModuleChild& child)
{
    releasePackages(child.packages());
    std::vector<std::string> staying;
    for (const std::string& package : child.mounted()) {
        const std::string place = paths::kMountedPackages + package;
        int answer = 0;  // that it is in use stands in the table
        if (isPackageMounted(package) &&
            (child.isHelperLost() ||
             PS_Umount(place.c_str(), static_cast<int>(place.size()), 0, &answer) != 0)) {
            staying.push_back(package);
        }
    }
    PackagesLock::instance().giveUp();
    for (const std::string& package : staying) {
        report_.warning("the package " + package +
                        " stays mounted; once \"quillonctl doctor\" finds the mounting helper "
                        "at work, the next \"quillonctl modules check\" unmounts it");
    }
}

/// What is still being flashed from stays this program's to its end.
void ModuleVerbs::letPackagesGo() const
{
    if (!hasLateUpdate_) {
        PackagesLock::instance().giveUp();
    }
}

/// Writes the warnings of an update. Called once its record has its end and its locks are given up,
/// since the reader may keep the program waiting.
void ModuleVerbs::tellWarnings()
{
    for (const std::string& warning : warnings_) {
        report_.warning(warning);
    }
    warnings_.clear();
}

void ModuleVerbs::finish(UpdateWatch& watch)
{
    const bool isStuck = watch.finish();
    hasStuckWatch_ = hasStuckWatch_ || isStuck;
    hasLateUpdate_ = hasLateUpdate_ || watch.isAnyStillRunning();
    if (hasLateUpdate_ && isMounting()) {
        warnings_.push_back("the mounting helper does not answer; " + remedyForMountingHelper());
    }
}

void ModuleVerbs::tellAllDone()
{
    if (hasLateUpdate_) {
        return;  // whoever is still flashing is not told that the run is over
    }
    const std::string raised = raisedBy([] { manager().allDoUpdateDone(); });
    if (!raised.empty()) {
        warnings_.push_back("not every module was told that the run is over: " + raised);
    }
}

std::vector<ModuleUpdate> ModuleVerbs::runMarked()
{
    const ModuleSource& source = *findModuleSource("package");
    const std::vector<ModuleCheck> checks = [&] {
        ToldRun look(RunEvent::kEstimateBegan, RunEvent::kEstimateEnded, source.name);
        std::vector<ModuleCheck> found = checkAll(source);
        look.endWith(0);
        return found;
    }();
    if (const std::string trouble = troubleOfList(); !trouble.empty()) {
        warnings_.push_back(trouble);
    }
    std::vector<FWUpdateSymbol>& modules = manager().modules();
    std::vector<const FWUpdateSymbol*> marked;
    for (const FWUpdateSymbol& module : modules) {
        if (module.getNeedUpdate()) {
            marked.push_back(&module);
        }
    }
    UpdateWatch watch(marked, report_, pollInterval_);
    bool isInterrupted = false;
    hasPowerLock_ = true;
    const std::string raised =
        raisedByUpdate([] { manager().doUpdateFirmwareAll(CALLER_SERVICE); }, isInterrupted);
    if (!raised.empty()) {
        // A module that is told that the run is over has broken the run's end off.
        warnings_.push_back("not every module was told that the run is over: " + raised);
    }
    if (!raised.empty() || isInterrupted) {
        breakRunOff();
    }
    hasPowerLock_ = false;
    finish(watch);
    std::vector<ModuleUpdate> updates;
    int begun = isInterrupted ? UpdateSlot::instance().updatesBegun() : INT_MAX;
    for (std::size_t i = 0; i < modules.size(); ++i) {
        FWUpdateSymbol& module = modules[i];
        if (!module.getNeedUpdate()) {
            updates.push_back(withoutUpdate(checks[i]));
        } else if (begun-- > 0) {  // the registry goes in this order
            updates.push_back(outcomeOf(module, checks[i].running));
        } else {
            updates.push_back(notBegun(module));
        }
        if (kindOf(module) == ModuleKind::kFirmware) {
            release(module, source);
        }
    }
    if (isInterrupted && UpdateSlot::instance().updatesBegun() > 0) {
        tellAllDone();
    }
    return updates;
}

/// The registry's own run over all modules knows packages only.
std::vector<ModuleUpdate> ModuleVerbs::runOneByOne(const ModuleSource& source)
{
    std::vector<ModuleUpdate> updates;
    for (FWUpdateSymbol& module : manager().modules()) {
        if (isInterrupted()) {
            updates.push_back(notBegun(module));
            continue;
        }
        updates.push_back(kindOf(module) == ModuleKind::kFirmware
                              ? updateOne(module, source)
                              : withoutUpdate(describeCheck(module, source)));
    }
    if (!isInterrupted() || UpdateSlot::instance().updatesBegun() > 0) {
        tellAllDone();
    }
    return updates;
}

ModuleUpdate ModuleVerbs::runProcess(FWUpdateSymbol& module, const ModuleSource& source)
{
    const std::string name = module.getLibName();
    if (!beginUpdating()) {
        return notBegun(module);
    }
    report_.updating(name);
    char noText[] = "";
    int result = -1;
    const std::string raised =
        raisedBy([&] { result = manager().doUpdateFirmware(name, source.caller, noText); });
    if (!raised.empty()) {
        updateEnded();  // the registry does not say so then
    }
    endUpdating();
    const std::string running = runningVersion(module).value_or("");
    if (result == 0) {
        return {name, Outcome::kUpdated, running, ""};
    }
    const std::optional<ModuleRun> run = ModuleEvents::instance().of(name).run;
    const std::string reason = raised.empty() && run && run->end ? phraseOf(*run->end) : raised;
    return {name, Outcome::kFailed, running, reason};
}

ModuleUpdate ModuleVerbs::updateOne(FWUpdateSymbol& module, const ModuleSource& source)
{
    if (kindOf(module) == ModuleKind::kProcess) {
        return runProcess(module, source);
    }
    const std::string before = runningVersion(module).value_or("");
    char noText[] = "";
    UpdateWatch watch({&module}, report_, pollInterval_);
    bool isInterrupted = false;
    const std::string raised = raisedByUpdate(
        [&] { manager().doUpdateFirmware(module.getLibName(), source.caller, noText); },
        isInterrupted);
    finish(watch);

    // The registry checks by itself; without its mark it has started nothing.
    ModuleUpdate update;
    if (isInterrupted) {
        update = notBegun(module);
    } else if (!raised.empty()) {
        update = {module.getLibName(), Outcome::kFailed, "", raised};
    } else if (module.getNeedUpdate()) {
        update = outcomeOf(module, before);
    } else {
        update = withoutUpdate(describeCheck(module, source));
    }
    release(module, source);
    return update;
}

/// Records updates and the code that the program ends with. The result is written once the record
/// has its end and the locks are given up.
/// @param work  returns them, and that code
template <typename Work>
ExitCode ModuleVerbs::recorded(const ModuleSource& source, Work work)
{
    source_ = &source;
    std::vector<ModuleUpdate> updates;
    ExitCode code = kExitSuccess;
    try {
        ToldRun run(RunEvent::kUpdateBegan, RunEvent::kUpdateEnded, source.name);
        try {
            std::tie(updates, code) = work();
        } catch (const Failure& failure) {
            run.endWith(failure.code);
            throw;
        }
        run.endWith(code);
    } catch (const Failure&) {
        letPackagesGo();
        tellWarnings();
        throw;
    }
    takeOverTheEnd();
    tellWarnings();
    report_.updated(source, updates, code);
    return code;
}

ExitCode ModuleVerbs::update(const std::string& name, const ModuleSource& source)
{
    open(/*isUpdate=*/true);
    FWUpdateSymbol& module = usableModule(name);
    prepareUpdates();
    return recorded(source, [&] {
        awaitPackages(source);
        std::vector<ModuleUpdate> updates = {updateOne(module, source)};
        letPackagesGo();
        const Outcome outcome = updates.front().outcome;
        if (outcome == Outcome::kNotBegun) {
            throw UpdateSlot::instance().interruption();
        }
        const bool isOffered = outcome != Outcome::kNothingOffered;
        const ExitCode code = isOffered ? exitCodeOf(updates) : kExitNothingToUpdate;
        if (isOffered && outcome != Outcome::kNotNeeded) {
            tellAllDone();
        }
        return std::pair(std::move(updates), code);
    });
}

ExitCode ModuleVerbs::updateAll(const ModuleSource& source)
{
    open(/*isUpdate=*/true);
    prepareUpdates();
    return recorded(source, [&] {
        awaitPackages(source);
        std::vector<ModuleUpdate> updates =
            source.type == UPDATE_EMP ? runMarked() : runOneByOne(source);
        letPackagesGo();
        if (isAny(updates, Outcome::kNotBegun) && UpdateSlot::instance().updatesBegun() == 0) {
            throw UpdateSlot::instance().interruption();
        }
        const ExitCode code = exitCodeOf(updates);
        return std::pair(std::move(updates), code);
    });
}

ExitCode ModuleVerbs::unlock()
{
    report_.unlocked(UpdateSlot::release());
    return kExitSuccess;
}

ExitCode ModuleVerbs::version(const std::string& name)
{
    std::vector<ModuleEntry> entries;
    if (!name.empty()) {
        entries = apart([&] { return probeModules(times_, name); });
    }
    if (entries.empty()) {
        throw noModule(name);
    }
    const ModuleEntry& entry = entries.front();
    if (entry.kind == ModuleKind::kUnusable) {
        throw unusable(name, entry.reason);
    }
    if (entry.running.empty()) {
        throw Failure{kExitNoAnswer, "the module " + name + " does not tell its version"};
    }
    takeOverTheEnd();
    report_.version(entry);
    return kExitSuccess;
}

ExitCode ModuleVerbs::progress(const std::string& name)
{
    open();
    usableModule(name);
    const std::optional<unsigned int> percent = updateProgress(name);
    if (!percent) {
        throw Failure{kExitNoAnswer, "the module " + name + " does not tell its progress"};
    }
    takeOverTheEnd();
    report_.progress(name, *percent);
    return kExitSuccess;
}

/// Some platforms download in the process that asks, so every download is waited for.
ExitCode ModuleVerbs::download()
{
    open();
    requireFreeLoader("downloaded");
    std::vector<const FWUpdateSymbol*> modules;
    for (const FWUpdateSymbol& module : manager().modules()) {
        if (kindOf(module) == ModuleKind::kFirmware) {
            modules.push_back(&module);
        }
    }
    report_.downloading(modules.size());
    std::vector<std::future<int>> ends;
    ends.reserve(modules.size());
    for (const FWUpdateSymbol* module : modules) {
        ends.push_back(startDownload(module->getEMPName()));
    }
    std::vector<ModuleDownload> downloads;
    ExitCode code = kExitSuccess;
    for (std::size_t i = 0; i < modules.size(); ++i) {
        downloads.push_back(resultOfDownload(modules[i]->getLibName(), ends[i]));
        code = downloads.back().downloaded ? code : kExitDownloadFailed;
    }
    takeOverTheEnd();
    report_.downloaded(downloads, code);
    return code;
}

}  // namespace quillon
