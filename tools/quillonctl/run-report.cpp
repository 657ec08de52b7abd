#include "tools/quillonctl/run-report.h"

#include <cmath>
#include <utility>
#include <vector>

#include "src/support/module-reason.h"
#include "tools/shared/outside-text.h"
#include "tools/shared/text-table.h"

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
    if (module.isLate) {
        return "timed out: " + phraseOfLate(module.finding);
    }
    if (!module.finding) {
        return "unfinished";
    }
    return module.finding->result == 0
               ? "updated in " + std::to_string(std::lround(module.seconds)) + " s"
               : "failed: " + phraseOf(*module.finding);
}

/// @return null, which is left out, when the text is not known
Json::Value known(const std::string& text)
{
    return text.empty() ? Json::Value() : Json::Value(text);
}

JsonMembers membersOf(const RecordedModule& module, int good)
{
    JsonMembers members = {{"name", module.name}, {"offered", known(module.offered)}};
    if (module.finding) {
        members["result"] = module.finding->result;
        members["expectedSeconds"] = module.expectedSeconds;
        members["seconds"] = module.seconds;
    }
    if (module.finding && module.finding->result != good) {
        members["reason"] = codeOf(module.finding->reason);
        members["text"] = phraseOf(*module.finding);
    }
    if (module.isLate) {
        members["late"] = true;
    }
    return members;
}

/// The versions that the modules have told at one moment.
struct Versions
{
    const char* heading;
    const char* member;  ///< for programs
    const ModuleAnswers* answers;
};

/// @param heading   of the column that `describe` fills
/// @param good      the result of a module that is not refused
/// @param versions  columns; what is wrong is told of the last one
void sayModules(Output& output, const char* event, const char* heading, int good,
                const std::vector<RecordedModule>& modules,
                std::string (*describe)(const RecordedModule& module),
                const std::vector<Versions>& versions)
{
    Json::Value objects(Json::arrayValue);
    std::vector<TableRow> rows = {{"NAME"}};
    for (const Versions& column : versions) {
        rows.front().emplace_back(column.heading);
    }
    rows.front().insert(rows.front().end(), {"OFFERED", heading});
    for (const RecordedModule& module : modules) {
        JsonMembers members = membersOf(module, good);
        TableRow row = {module.name};
        ModuleAnswer answer;
        for (const Versions& column : versions) {
            const auto found = column.answers->find(module.name);
            answer = found != column.answers->end() ? found->second : ModuleAnswer();
            members[column.member] = known(answer.running);
            row.push_back(orDash(answer.running));
        }
        members["problem"] = known(answer.problem);
        row.push_back(orDash(module.offered));
        row.push_back(printable(joined(describe(module), answer.reason)));
        objects.append(jsonObject(members));
        rows.push_back(std::move(row));
    }
    output.event(event, {{"modules", objects}});
    for (const std::string& line : aligned(std::move(rows))) {
        output.line(line);
    }
}

/// Marks those that have succeeded and still run their old version.
/// @return a warning for each
std::vector<std::string> markUnchanged(const RecordedRun& update, AnswersAround& answers)
{
    std::vector<std::string> warnings;
    for (const RecordedModule& module : update.modules) {
        ModuleAnswer& after = answers.after[module.name];
        const std::string unchanged =
            phraseOfSuccess(answers.before[module.name].running, after.running, module.offered);
        if (module.finding && module.finding->result == 0 && !unchanged.empty()) {
            after.problem = "unchanged";
            after.reason = unchanged;
            warnings.push_back(printable(warningOfSuccess(module.name, unchanged)));
        }
    }
    return warnings;
}

/// The module that has failed, or else timed out, or that an exception has ended the run in; null
/// where none is known.
const RecordedModule* failedIn(const RecordedRun& run)
{
    const RecordedModule* late = nullptr;
    for (const RecordedModule& one : run.modules) {
        if (!one.isLate && one.finding && one.finding->result != 0) {
            return &one;
        }
        late = late == nullptr && one.isLate ? &one : late;
    }
    if (late != nullptr) {
        return late;
    }
    // Without its end, the record may lack what became of a module.
    return run.result.value_or(0) != 0 ? run.present() : nullptr;
}

/// @param failed  null when nothing is recorded
std::string whyFailed(const RecordedModule* failed, const std::string& log)
{
    if (failed == nullptr) {
        return "the update failed; " + log + " says why";
    }
    std::string reason = "an exception was raised";
    if (failed->isLate) {
        reason = phraseOfLate(failed->finding);
    } else if (failed->finding) {
        reason = printable(phraseOf(*failed->finding));
    }
    const char* what =
        failed->isLate ? "the update timed out at the module " : "the update failed at the module ";
    return what + printable(failed->name) + ": " + reason + "; " + log + " says more";
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

void sayLook(Output& output, const RecordedRun& look, const ModuleAnswers& answers)
{
    sayModules(output, "looked", "STATE", 1, look.modules, describeLook,
               {{"RUNNING", "running", &answers}});
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

ExitCode UpdateReport::ended(const RecordedRun& update, ExitCode end, int seconds,
                             std::optional<AnswersAround> answers)
{
    std::vector<std::string> warnings;
    std::vector<Versions> versions;
    if (answers) {
        warnings = markUnchanged(update, *answers);
        versions = {{"BEFORE", "before", &answers->before}, {"AFTER", "after", &answers->after}};
    }
    if (!update.modules.empty()) {
        sayModules(output_, "updated", "OUTCOME", 0, update.modules, describeUpdate, versions);
    }
    for (const std::string& warning : warnings) {
        output_.warning(warning);
    }
    if (end == kExitNothingToUpdate) {
        output_.say("finished", {{"seconds", seconds}}, "Nothing to update");
        return kExitSuccess;
    }
    // To the service, only a module's code -1 fails a run.
    const RecordedModule* failed = failedIn(update);
    if (end == kExitSuccess && failed == nullptr) {
        output_.say("finished", {{"seconds", seconds}},
                    "The update finished after " + std::to_string(seconds) + " s");
        return kExitSuccess;
    }
    // Other codes tell of the program that has made the update.
    const bool isKept = end == kExitTimedOut || end == kExitAlreadyUpdating;
    const ExitCode code = isKept ? end : kExitUpdateFailed;
    output_.error(code,
                  end == kExitInterrupted ? "the update was interrupted" : whyFailed(failed, log_));
    return code;
}

}  // namespace quillon
