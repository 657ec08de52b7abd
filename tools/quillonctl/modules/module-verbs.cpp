#include "tools/quillonctl/modules/module-verbs.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>

#include "platform/power.h"
#include "src/fw-update-common.h"
#include "src/support/paths.h"
#include "tools/quillonctl/modules/foreign-end.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-events.h"
#include "tools/quillonctl/modules/package-downloads.h"
#include "tools/quillonctl/modules/package-mount.h"
#include "tools/quillonctl/modules/update-slot.h"
#include "tools/quillonctl/standard-files.h"

namespace quillon {

namespace {

constexpr int kPowerLock = 2;  // the registry's own

FWUpdateSymbolManager& manager()
{
    return *FWUpdateSymbolManager::getInstance();
}

ModuleEntry entryOf(FWUpdateSymbol& module)
{
    ModuleEntry entry;
    entry.name = module.getLibName();
    entry.kind = kindOf(module);
    entry.running = runningVersion(module).value_or("");
    if (entry.kind == ModuleKind::kFirmware) {
        entry.firmwareName = module.getFirmwareName();
        entry.package = module.getEMPName();
        entry.hasPackage = module.getIMGExists();
    }
    if (entry.kind == ModuleKind::kUnusable) {
        entry.reason = defectOf(module);
    }
    return entry;
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
        return kExitUpdateFailed;
    }
    return isAny(updates, Outcome::kTimedOut) ? kExitTimedOut : kExitSuccess;
}

/// What became of a module that needed no update, or could not have one.
ModuleUpdate withoutUpdate(const ModuleCheck& check)
{
    ModuleUpdate update;
    update.name = check.name;
    update.running = check.running;
    update.reason = check.reason;
    switch (check.decision) {
        case Decision::kUpToDate:
            update.outcome = Outcome::kNotNeeded;
            break;
        case Decision::kNothingOffered:
            update.outcome = Outcome::kNothingOffered;
            break;
        case Decision::kByNameOnly:
            update.outcome = Outcome::kByNameOnly;
            break;
        case Decision::kUnusable:
            update.outcome = Outcome::kUnusable;
            break;
        default:
            update.outcome = Outcome::kFailed;
            break;
    }
    return update;
}

ModuleUpdate notBegun(const FWUpdateSymbol& module)
{
    ModuleUpdate update;
    update.name = module.getLibName();
    update.outcome = Outcome::kNotBegun;
    update.reason = UpdateSlot::instance().trouble();
    return update;
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
ModuleUpdate outcomeOf(FWUpdateSymbol& module)
{
    ModuleUpdate update;
    update.name = module.getLibName();
    const std::optional<ModuleRun> run = ModuleEvents::instance().run(update.name);
    if (run && !run->end) {
        update.outcome = Outcome::kTimedOut;
        update.reason = "it is still being updated";
        return update;  // its plug-in is busy: nothing is asked
    }
    update.running = runningVersion(module).value_or("");
    if (!run) {
        update.outcome = Outcome::kFailed;
        update.reason = "the log says why";
        return update;
    }
    const bool isInstalled = run->end->result == 0;
    if (run->isLate) {
        update.outcome = Outcome::kTimedOut;
        update.reason = isInstalled ? "it was updated only after its time"
                                    : "the update ended only after its time";
    } else if (isInstalled) {
        update.outcome =
            run->end->reason == ModuleReason::kUpToDate ? Outcome::kNotNeeded : Outcome::kUpdated;
    } else {
        update.outcome = Outcome::kFailed;
        update.reason = phraseOf(*run->end);
    }
    return update;
}

}  // namespace

ExitCode ModuleVerbs::fail(ExitCode code, const std::string& text)
{
    report_.error(code, text);
    return code;
}

void ModuleVerbs::abandon()
{
    if (hasPowerLock_) {
        device_power_unlock_state(kPowerLock);
        static_cast<void>(std::remove(paths::kUpdateList));
    }
    if (const ModuleSource* source = source_) {
        releasePackages(*source);
    }
}

/// On whichever thread the module has called exit.
void ModuleVerbs::endBecauseOf(const std::string& who)
{
    const int code =
        fail(isUpdating_ ? kExitUpdateFailed : kExitUnusableModule, who + " has ended the program");
    abandon();
    static_cast<void>(UpdateSlot::instance().giveBack());
    endAtOnce(closeOutput(code));
}

bool& ModuleVerbs::watchForRequests()
{
    return runningUntilInterrupted([this] {
        if (UpdateSlot::instance().updatesBegun() == 0) {
            interrupted();
        } else {
            fail(kExitInterrupted, "interrupted; what was begun is over");
        }
        abandon();
        static_cast<void>(UpdateSlot::instance().giveBack());
    });
}

bool& ModuleVerbs::watchForRequestsFirst()
{
    bool& running = watchForRequests();
    keepKeyboardFromModules();
    return running;
}

ExitCode ModuleVerbs::interrupted()
{
    if (const std::string& trouble = UpdateSlot::instance().trouble(); !trouble.empty()) {
        return fail(kExitSystem, trouble);
    }
    return fail(kExitInterrupted, UpdateSlot::instance().updatesBegun() == 0
                                      ? "interrupted; nothing was updated"
                                      : "interrupted; not every update was begun");
}

ExitCode ModuleVerbs::open()
{
    static_cast<void>(FWUpdateSymbolManager::getInstance());
    watchForForeignEnd([this](const std::string& who) { endBecauseOf(who); });
    if (!openRegistry()) {
        return fail(kExitSystem,
                    std::string("the module directory cannot be read: ") + paths::kModules);
    }
    return kExitSuccess;
}

ExitCode ModuleVerbs::open(const std::string& name, FWUpdateSymbol*& module)
{
    const ExitCode opened = open();
    if (opened != kExitSuccess) {
        return opened;
    }
    FWUpdateSymbol* found = findModule(name);
    if (found == nullptr) {
        return fail(kExitUnknownModule, "there is no module " + name);
    }
    if (kindOf(*found) == ModuleKind::kUnusable) {
        return fail(kExitUnusableModule,
                    "the module " + name + " is unusable: " + defectOf(*found));
    }
    module = found;
    return kExitSuccess;
}

ExitCode ModuleVerbs::list()
{
    watchForRequests();
    const ExitCode opened = open();
    if (opened != kExitSuccess) {
        return opened;
    }
    std::vector<ModuleEntry> entries;
    for (FWUpdateSymbol& module : manager().modules()) {
        entries.push_back(entryOf(module));
    }
    takeOverTheEnd();
    report_.modules(entries);
    return kExitSuccess;
}

ExitCode ModuleVerbs::checkInto(const ModuleSource& source, bool& running,
                                std::vector<ModuleCheck>& checks)
{
    const CheckEnd end = checkModules(source, running, checks);
    if (end == CheckEnd::kDone) {
        return kExitSuccess;
    }
    takeOverTheEnd();
    releasePackages(source);
    if (end == CheckEnd::kStopped) {
        return interrupted();
    }
    return fail(kExitSystem, std::string(end == CheckEnd::kUnsafeList
                                             ? "the update list's path leads elsewhere: "
                                             : "the update list cannot be written whole, make room "
                                               "for it or see what is in its place: ") +
                                 paths::kUpdateList);
}

ExitCode ModuleVerbs::check(const ModuleSource& source)
{
    bool& running = watchForRequests();
    const ExitCode opened = open();
    if (opened != kExitSuccess) {
        return opened;
    }
    source_ = &source;
    std::vector<ModuleCheck> checks;
    const ExitCode checked = checkInto(source, running, checks);
    if (checked != kExitSuccess) {
        return checked;
    }
    takeOverTheEnd();
    releasePackages(source);
    report_.checked(source, checks);
    if (!checks.empty() && isNoneUsable(checks)) {
        return kExitUnusableModule;
    }
    const bool isAnyNeeded =
        std::any_of(checks.begin(), checks.end(),
                    [](const ModuleCheck& check) { return check.decision == Decision::kNeeded; });
    return isAnyNeeded ? kExitSuccess : kExitNothingToUpdate;
}

/// The registry does not tell a missing semaphore from a failed update.
ExitCode ModuleVerbs::prepareUpdates()
{
    isUpdating_ = true;
    const std::string trouble = UpdateSlot::instance().open();
    if (!trouble.empty()) {
        return fail(kExitSystem,
                    std::string("the update semaphore ") + semName + " cannot be had: " + trouble);
    }
    holdOffSignals();
    return kExitSuccess;
}

void ModuleVerbs::release(FWUpdateSymbol& module, const ModuleSource& source,
                          const UpdateWatch& watch)
{
    // What is being flashed from stays mounted.
    if (source.type != UPDATE_EMP || watch.isStillRunning(module)) {
        return;
    }
    if (!releasePackage(module)) {
        report_.warning("the package of " + module.getLibName() + " stays mounted");
    }
}

void ModuleVerbs::tellAllDone()
{
    if (hasLateUpdate_) {
        return;  // whoever is still flashing is not told that the run is over
    }
    const std::string raised = raisedBy([] { manager().allDoUpdateDone(); });
    if (!raised.empty()) {
        report_.warning("not every module was told that the run is over: " + raised);
    }
}

void ModuleVerbs::runMarked(const std::vector<ModuleCheck>& checks,
                            std::vector<ModuleUpdate>& updates)
{
    const ModuleSource& source = *findModuleSource("package");
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
        report_.warning("not every module was told that the run is over: " + raised);
    }
    if (!raised.empty() || isInterrupted) {
        device_power_unlock_state(kPowerLock);
        static_cast<void>(std::remove(paths::kUpdateList));
    }
    hasPowerLock_ = false;
    watch.finish();
    hasLateUpdate_ = watch.isAnyStillRunning();
    hasStuckWatch_ = watch.isStuck();
    int begun = isInterrupted ? UpdateSlot::instance().updatesBegun() : INT_MAX;
    for (std::size_t i = 0; i < modules.size(); ++i) {
        FWUpdateSymbol& module = modules[i];
        if (!module.getNeedUpdate()) {
            updates.push_back(withoutUpdate(checks[i]));
        } else if (begun-- > 0) {  // the registry goes in this order
            updates.push_back(outcomeOf(module));
        } else {
            updates.push_back(notBegun(module));
        }
        if (kindOf(module) == ModuleKind::kFirmware) {
            release(module, source, watch);
        }
    }
    if (isInterrupted && UpdateSlot::instance().updatesBegun() > 0) {
        tellAllDone();
    }
}

/// The registry's own run over all modules knows packages only.
void ModuleVerbs::runOneByOne(const ModuleSource& source, std::vector<ModuleUpdate>& updates)
{
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
}

ModuleUpdate ModuleVerbs::runProcess(FWUpdateSymbol& module, const ModuleSource& source)
{
    const std::string name = module.getLibName();
    report_.updating(name);
    char noText[] = "";
    int result = -1;
    beginUpdating();
    const std::string raised =
        raisedBy([&] { result = manager().doUpdateFirmware(name, source.caller, noText); });
    if (!raised.empty()) {
        updateEnded();  // the registry does not say so then
    }
    endUpdating();
    ModuleUpdate update;
    update.name = name;
    update.outcome = result == 0 ? Outcome::kUpdated : Outcome::kFailed;
    update.running = runningVersion(module).value_or("");
    if (result != 0) {
        const std::optional<ModuleRun> run = ModuleEvents::instance().run(name);
        update.reason = raised.empty() && run && run->end ? phraseOf(*run->end) : raised;
    }
    return update;
}

ModuleUpdate ModuleVerbs::updateOne(FWUpdateSymbol& module, const ModuleSource& source)
{
    if (kindOf(module) == ModuleKind::kProcess) {
        return runProcess(module, source);
    }
    char noText[] = "";
    UpdateWatch watch({&module}, report_, pollInterval_);
    bool isInterrupted = false;
    const std::string raised = raisedByUpdate(
        [&] { manager().doUpdateFirmware(module.getLibName(), source.caller, noText); },
        isInterrupted);
    watch.finish();
    hasLateUpdate_ = hasLateUpdate_ || watch.isAnyStillRunning();
    hasStuckWatch_ = hasStuckWatch_ || watch.isStuck();
    if (isInterrupted) {
        release(module, source, watch);
        return notBegun(module);
    }

    // The registry checks by itself; without its mark it has started nothing.
    ModuleUpdate update;
    if (!raised.empty()) {
        update.name = module.getLibName();
        update.outcome = Outcome::kFailed;
        update.reason = raised;
    } else if (module.getNeedUpdate()) {
        update = outcomeOf(module);
    } else {
        update = withoutUpdate(describeCheck(module, source));
    }
    release(module, source, watch);
    return update;
}

ExitCode ModuleVerbs::update(const std::string& name, const ModuleSource& source)
{
    watchForRequestsFirst();
    FWUpdateSymbol* module = nullptr;
    ExitCode code = open(name, module);
    if (code == kExitSuccess) {
        code = prepareUpdates();
    }
    if (code != kExitSuccess) {
        return code;
    }
    source_ = &source;
    const ModuleUpdate update = updateOne(*module, source);
    if (update.outcome == Outcome::kNotBegun) {
        takeOverTheEnd();
        return interrupted();
    }
    if (update.outcome == Outcome::kNothingOffered) {
        code = kExitNothingToUpdate;
    } else {
        code = exitCodeOf({update});
    }
    const bool wasNeeded =
        update.outcome != Outcome::kNotNeeded && update.outcome != Outcome::kNothingOffered;
    if (wasNeeded) {
        tellAllDone();
    }
    takeOverTheEnd();
    report_.updated(source, {update}, code);
    return code;
}

ExitCode ModuleVerbs::updateAll(const ModuleSource& source)
{
    bool& running = watchForRequestsFirst();
    ExitCode code = open();
    if (code == kExitSuccess) {
        code = prepareUpdates();
    }
    if (code != kExitSuccess) {
        return code;
    }
    source_ = &source;
    std::vector<ModuleUpdate> updates;
    if (source.type == UPDATE_EMP) {
        std::vector<ModuleCheck> checks;
        code = checkInto(source, running, checks);
        if (code != kExitSuccess) {
            return code;
        }
        runMarked(checks, updates);
    } else {
        runOneByOne(source, updates);
    }
    takeOverTheEnd();
    code = exitCodeOf(updates);
    if (isAny(updates, Outcome::kNotBegun) && UpdateSlot::instance().updatesBegun() == 0) {
        return interrupted();
    }
    report_.updated(source, updates, code);
    return code;
}

ExitCode ModuleVerbs::unlock()
{
    const ReleaseResult result = UpdateSlot::release();
    switch (result.release) {
        case Release::kReleased:
        case Release::kWasFree:
            report_.unlocked(result.release == Release::kReleased);
            return kExitSuccess;
        case Release::kHeld:
            return fail(
                kExitAlreadyUpdating,
                "the update semaphore stays locked: it may be held by " + describe(result.holders));
        case Release::kStuck:
            return fail(kExitAlreadyUpdating,
                        "the update semaphore stays locked: a program that waits for it does not "
                        "react, let it go on or end it first: " +
                            describe(result.holders));
        case Release::kUnknown:
            return fail(kExitSystem,
                        "the update semaphore stays locked: whether somebody holds it cannot be "
                        "told by this user; root can release it");
        default:
            return fail(kExitSystem, std::string("the update semaphore ") + semName +
                                         " cannot be had: " + result.trouble);
    }
}

ExitCode ModuleVerbs::version(const std::string& name)
{
    watchForRequests();
    FWUpdateSymbol* module = nullptr;
    const ExitCode opened = open(name, module);
    if (opened != kExitSuccess) {
        return opened;
    }
    if (!runningVersion(*module)) {
        takeOverTheEnd();
        return fail(kExitNoAnswer, "the module " + name + " does not tell its version");
    }
    const ModuleEntry entry = entryOf(*module);
    takeOverTheEnd();
    report_.version(entry);
    return kExitSuccess;
}

ExitCode ModuleVerbs::progress(const std::string& name)
{
    watchForRequests();
    FWUpdateSymbol* module = nullptr;
    const ExitCode opened = open(name, module);
    if (opened != kExitSuccess) {
        return opened;
    }
    unsigned int percent = 0;
    int result = -1;
    static_cast<void>(
        raisedBy([&] { result = manager().getFirmwareUpdateProgress(name, &percent); }));
    takeOverTheEnd();
    if (result != 0) {
        return fail(kExitNoAnswer, "the module " + name + " does not tell its progress");
    }
    report_.progress(name, percent);
    return kExitSuccess;
}

ExitCode ModuleVerbs::download()
{
    watchForRequests();
    const ExitCode opened = open();
    if (opened != kExitSuccess) {
        return opened;
    }
    std::vector<ModuleDownload> downloads;
    std::vector<std::string> packages;
    for (const FWUpdateSymbol& module : manager().modules()) {
        if (kindOf(module) == ModuleKind::kFirmware) {
            downloads.push_back({module.getLibName(), false, ""});
            packages.push_back(module.getEMPName());
        }
    }
    report_.downloading(packages.size());
    const std::vector<std::optional<int>> statuses = downloadPackages(packages);
    ExitCode code = kExitSuccess;
    for (std::size_t i = 0; i < statuses.size(); ++i) {
        downloads[i].downloaded = statuses[i] == 0;
        if (!statuses[i]) {
            downloads[i].reason = "the platform did not accept the request";
        } else if (*statuses[i] != 0) {
            downloads[i].reason = "status " + std::to_string(*statuses[i]) + ", the log says why";
        }
        code = downloads[i].downloaded ? code : kExitDownloadFailed;
    }
    takeOverTheEnd();
    report_.downloaded(downloads, code);
    return code;
}

}  // namespace quillon
