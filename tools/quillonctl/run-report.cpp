#include "tools/quillonctl/run-report.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "src/support/module-reason.h"
#include "tools/quillonctl/outside-text.h"
#include "tools/quillonctl/text-table.h"

namespace quillon {
namespace {

std::string describeLook(const RecordedModule& module)
{
    if (!module.finding) {
        return "unfinished";
    }
    return module.finding->result == 1
               ? "needs an update, about " + std::to_string(module.expectedSeconds) + " s"
               : phraseOf(*module.finding);
}

std::string describeUpdate(const RecordedModule& module)
{
    if (!module.finding) {
        return "unfinished";
    }
    return module.finding->result == 0
               ? "updated in " + std::to_string(std::lround(module.seconds)) + " s"
               : "failed: " + phraseOf(*module.finding);
}

JsonMembers membersOf(const RecordedModule& module, int good)
{
    JsonMembers members = {
        {"name", module.name},
        {"offered", module.offered.empty() ? Json::Value() : Json::Value(module.offered)}};
    if (module.finding) {
        members["result"] = module.finding->result;
        members["expectedSeconds"] = module.expectedSeconds;
        members["seconds"] = module.seconds;
    }
    if (module.finding && module.finding->result != good) {
        members["reason"] = codeOf(module.finding->reason);
        members["text"] = phraseOf(*module.finding);
    }
    return members;
}

/// @param heading  of the column that `describe` fills
/// @param good     the result of a module that is not refused
void sayModules(Output& output, const char* event, const char* heading, int good,
                const std::vector<RecordedModule>& modules,
                std::string (*describe)(const RecordedModule& module))
{
    Json::Value objects(Json::arrayValue);
    std::vector<TableRow> rows = {{"NAME", "OFFERED", heading}};
    for (const RecordedModule& module : modules) {
        objects.append(jsonObject(membersOf(module, good)));
        rows.push_back({module.name, module.offered.empty() ? "-" : module.offered,
                        printable(describe(module))});
    }
    output.event(event, {{"modules", objects}});
    for (const std::string& line : aligned(std::move(rows))) {
        output.line(line);
    }
}

/// The module that has failed, or that an exception has ended the run in; null where none is known.
const RecordedModule* failedIn(const RecordedRun& run)
{
    const auto failed = std::find_if(
        run.modules.begin(), run.modules.end(),
        [](const RecordedModule& one) { return one.finding && one.finding->result != 0; });
    if (failed != run.modules.end()) {
        return &*failed;
    }
    // Without its end, the record may lack what became of a module.
    return run.result.value_or(0) != 0 ? run.present() : nullptr;
}

/// @param failed  null when nothing is recorded
std::string whyFailed(const RecordedModule* failed)
{
    if (failed == nullptr) {
        return "the update failed; the update service's log says why";
    }
    return "the update failed at the module " + printable(failed->name) + ": " +
           (failed->finding ? printable(phraseOf(*failed->finding)) : "an exception was raised") +
           "; the update service's log says more";
}

}  // namespace

ExitCode nothingNeeded(const std::optional<RecordedRun>& look)
{
    bool isUpToDate = false;
    for (const RecordedModule& module : look.value_or(RecordedRun()).modules) {
        const ModuleReason reason =
            module.finding ? module.finding->reason : ModuleReason::kException;
        isUpToDate |= reason == ModuleReason::kUpToDate;
        if (reason != ModuleReason::kUpToDate && reason != ModuleReason::kNoImage) {
            return kExitNothingToUpdate;
        }
    }
    return isUpToDate ? kExitSuccess : kExitNothingToUpdate;
}

void sayLook(Output& output, const RecordedRun& look)
{
    sayModules(output, "looked", "STATE", 1, look.modules, describeLook);
}

void UpdateReport::running(const RecordedRun& update, int percent, int secondsLeft)
{
    const RecordedModule* module = update.present();
    if (module != nullptr && module->name != module_) {
        module_ = module->name;
        output_.say("updating", {{"module", module_}}, "Updating " + printable(module_));
    }
    output_.progress(percent, secondsLeft);
    if (std::exchange(percent_, percent) != percent) {
        output_.event("progress", {{"percent", percent}, {"secondsLeft", secondsLeft}});
    }
}

ExitCode UpdateReport::ended(const RecordedRun& update, bool isDone, int seconds)
{
    if (!update.modules.empty()) {
        sayModules(output_, "updated", "OUTCOME", 0, update.modules, describeUpdate);
    }
    // To the service, only a module's code -1 fails a run.
    const RecordedModule* failed = failedIn(update);
    if (isDone && failed == nullptr) {
        output_.say("finished", {{"seconds", seconds}},
                    "The update finished after " + std::to_string(seconds) + " s");
        return kExitSuccess;
    }
    output_.error(kExitUpdateFailed, whyFailed(failed));
    return kExitUpdateFailed;
}

}  // namespace quillon
