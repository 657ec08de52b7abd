#include "tools/quillonctl/modules/module-report.h"

#include <cstdint>
#include <map>
#include <utility>

#include "src/support/paths.h"
#include "tools/quillonctl/module-finding.h"
#include "tools/quillonctl/modules/packages-lock.h"
#include "tools/shared/outside-text.h"

namespace quillon {

namespace {

constexpr std::chrono::seconds kBetweenPlainLines(1);  // as for an update from a stick
constexpr std::size_t kLongestLine = 1000;
/// For programs: whole, whatever a reasonable module or image says.
constexpr std::size_t kLongestText = 4096;

const std::map<ModuleKind, const char*> kKinds = {
    {ModuleKind::kFirmware, "firmware"},
    {ModuleKind::kProcess, "process"},
    {ModuleKind::kUnusable, "unusable"},
};

const std::map<Decision, const char*> kDecisions = {
    {Decision::kNeeded, "needed"},
    {Decision::kUpToDate, "up-to-date"},
    {Decision::kNothingOffered, "nothing-offered"},
    {Decision::kUnsound, "unsound"},
    {Decision::kByNameOnly, "by-name-only"},
    {Decision::kUnusable, "unusable"},
};

const std::map<Outcome, const char*> kOutcomes = {
    {Outcome::kUpdated, "updated"},
    {Outcome::kNotNeeded, "not-needed"},
    {Outcome::kNothingOffered, "nothing-offered"},
    {Outcome::kFailed, "failed"},
    {Outcome::kTimedOut, "timed-out"},
    {Outcome::kNotBegun, "not-begun"},
    {Outcome::kByNameOnly, "by-name-only"},
    {Outcome::kUnusable, "unusable"},
};

/// @return null, which is left out, when the text is not known
Json::Value known(const std::string& text)
{
    return text.empty() ? Json::Value() : cut(text, kLongestText);
}

JsonMembers membersOf(const ModuleEntry& entry)
{
    JsonMembers members = {{"name", entry.name},
                           {"kind", kKinds.at(entry.kind)},
                           {"running", known(entry.running)},
                           {"reason", known(joined(entry.reason, entry.problem.text))},
                           {"problem", known(entry.problem.code)},
                           {"service", known(entry.service)},
                           {"serviceReason", known(entry.serviceReason)}};
    if (entry.kind == ModuleKind::kFirmware) {
        members["firmware"] = entry.firmwareName;
        members["package"] = entry.package;
        members["downloaded"] = entry.hasPackage ? *entry.hasPackage : Json::Value();
    }
    return members;
}

JsonMembers membersOf(const ModuleCheck& check)
{
    const bool isNeeded = check.decision == Decision::kNeeded;
    return {{"name", check.name},
            {"decision", kDecisions.at(check.decision)},
            {"running", known(check.running)},
            {"offered", known(check.offered)},
            {"seconds", isNeeded ? check.seconds : Json::Value()},
            {"reason", known(joined(check.reason, check.problem.text))},
            {"problem", known(check.problem.code)},
            {"remedy", known(check.remedy)}};
}

JsonMembers membersOf(const ModuleUpdate& update)
{
    return {{"name", update.name},
            {"outcome", kOutcomes.at(update.outcome)},
            {"running", known(update.running)},
            {"reason", known(update.reason)},
            {"remedy", known(update.remedy)}};
}

JsonMembers membersOf(const ModuleDownload& download)
{
    return {{"name", download.name},
            {"downloaded", download.downloaded},
            {"reason", known(download.reason)}};
}

JsonMembers membersOf(const SlotHolder& holder)
{
    return {{"process", holder.process != 0 ? holder.process : Json::Value()},
            {"command", known(holder.command)}};
}

template <typename Item>
Json::Value arrayOf(const std::vector<Item>& items)
{
    Json::Value array(Json::arrayValue);
    for (const Item& item : items) {
        array.append(jsonObject(membersOf(item)));
    }
    return array;
}

std::string describePackage(const ModuleEntry& entry)
{
    if (!entry.hasPackage) {
        return std::string("this user may not look for its package in ") + paths::kPackages;
    }
    return *entry.hasPackage ? "package is here" : "no package";
}

std::string describeHere(const ModuleEntry& entry)
{
    switch (entry.kind) {
        case ModuleKind::kProcess:
            return "process module";
        case ModuleKind::kUnusable:
            return (entry.service == "loaded" ? "unusable here: " : "unusable: ") + entry.reason;
        default:
            return joined(describePackage(entry), entry.problem.text);
    }
}

std::string describe(const ModuleEntry& entry)
{
    const bool isUsable = entry.kind != ModuleKind::kUnusable;
    if (entry.service == "loaded") {
        return joined(isUsable ? "" : "the service has loaded it", describeHere(entry));
    }
    if (entry.service == "refused" && entry.serviceReason != entry.reason) {
        return joined("unusable to the service: " + entry.serviceReason, describeHere(entry));
    }
    return joined(describeHere(entry), entry.service == "not-seen"
                                           ? "the service runs without it until its restart"
                                           : "");
}

std::string describe(const ModuleCheck& check)
{
    switch (check.decision) {
        case Decision::kNeeded:
            return "needs an update, about " + std::to_string(check.seconds) + " s";
        case Decision::kUpToDate:
            return "up to date";
        case Decision::kUnsound:
            return "cannot be checked: " + check.reason;
        case Decision::kUnusable:
            return "unusable: " + check.reason;
        default:
            return check.reason;
    }
}

std::string describe(const ModuleUpdate& update)
{
    switch (update.outcome) {
        case Outcome::kUpdated:
            return joined("updated", update.reason);
        case Outcome::kNotNeeded:
            return "no update needed";
        case Outcome::kFailed:
            return "failed: " + update.reason;
        case Outcome::kTimedOut:
            return "timed out: " + update.reason;
        case Outcome::kUnusable:
            return "unusable: " + update.reason;
        case Outcome::kByNameOnly:
            return "process module, runs by its name only";
        case Outcome::kNotBegun:
            return "not begun: " + (update.reason.empty() ? "interrupted" : update.reason);
        default:
            return update.reason;
    }
}

std::string describeNeed(const std::vector<ModuleCheck>& checks)
{
    int count = 0;
    std::int64_t seconds = 0;
    for (const ModuleCheck& check : checks) {
        if (check.decision == Decision::kNeeded) {
            ++count;
            seconds += check.seconds;
        }
    }
    if (count == 0) {
        return mountTroubleIn(checks) != kExitSuccess ? "No other module needs an update"
                                                      : "No module needs an update";
    }
    return (count == 1 ? "1 module needs" : std::to_string(count) + " modules need") +
           " an update, about " + std::to_string(seconds) + " s";
}

/// A text from outside on a line of its own.
std::string fit(const std::string& text)
{
    return cut(printable(text), kLongestLine);
}

}  // namespace

void ModuleReport::modules(const std::vector<ModuleEntry>& entries)
{
    output_.event("modules", {{"modules", arrayOf(entries)}});
    std::vector<TableRow> rows = {{"NAME", "RUNNING", "STATE"}};
    for (const ModuleEntry& entry : entries) {
        rows.push_back({orDash(entry.name), orDash(entry.running), describe(entry)});
    }
    table(rows);
}

void ModuleReport::checked(const ModuleSource& source, const std::vector<ModuleCheck>& checks)
{
    output_.event("modules-check", {{"source", source.name}, {"modules", arrayOf(checks)}});
    std::vector<TableRow> rows = {{"NAME", "RUNNING", "OFFERED", "STATE"}};
    for (const ModuleCheck& check : checks) {
        rows.push_back({orDash(check.name), orDash(check.running), orDash(check.offered),
                        joined(describe(check), check.problem.text)});
    }
    table(rows);
    if (isNoneUsable(checks)) {
        complainToPeople("no module could be checked, each is unusable");
    } else if (!checks.empty()) {
        line(describeNeed(checks));
    }
    for (const ModuleCheck& check : checks) {
        complainOf(check.remedy);
    }
}

void ModuleReport::version(const ModuleEntry& entry)
{
    output_.say("module-version", {{"name", entry.name}, {"version", entry.running}},
                fit(entry.running));
}

void ModuleReport::progress(const std::string& name, unsigned int percent)
{
    output_.say("module-progress", {{"name", name}, {"percent", percent}},
                std::to_string(percent) + " %");
}

void ModuleReport::waitingForOthers(const SlotHolders& holders)
{
    if (!isRead()) {
        return;
    }
    const bool isLeftBehind = holders.alive.empty() && holders.isComplete;
    const bool isAnyStopped = !holders.stopped.empty();
    output_.say("modules-waiting",
                {{"holders", arrayOf(holders.alive)},
                 {"stopped", isAnyStopped ? arrayOf(holders.stopped) : Json::Value()},
                 {"remedy", isLeftBehind ? "quillonctl modules unlock" : Json::Value()}},
                holders.arePackages
                    ? "Waiting: " + phraseOfPackages(holders) + "; the update begins after it"
                    : "Waiting for another update on this device");
    if (holders.arePackages) {
        return;
    }
    if (isLeftBehind) {
        const std::string remedy =
            "Nobody is alive who could hold the update semaphore; "
            "\"quillonctl modules unlock\" releases it";
        output_.isQuiet() ? warning(remedy) : line(remedy);
    } else if (!holders.alive.empty()) {
        line("The update semaphore may be held by " + describe(holders.alive));
    } else {
        line(
            "Whether somebody holds the update semaphore cannot be told by this user; root can "
            "tell");
    }
    if (isAnyStopped) {
        line("Stopped, and may keep it from being released; let it go on or end it: " +
             describe(holders.stopped));
    }
}

void ModuleReport::updating(const std::string& name)
{
    if (!isRead()) {
        return;
    }
    line("Updating " + name);
    output_.restartProgress();
    nextProgress_ = {};
}

void ModuleReport::progressed(int percent, int secondsLeft)
{
    const auto now = std::chrono::steady_clock::now();
    if (!isRead() || (isPaced_ && now < nextProgress_)) {
        return;
    }
    nextProgress_ = now + kBetweenPlainLines;
    output_.progress(percent, secondsLeft);
}

void ModuleReport::waitingForLate(const std::string& name)
{
    if (!isRead()) {
        return;
    }
    line("The time of " + name + " is over, but it is still being updated; waiting for it");
}

void ModuleReport::updated(const ModuleSource& source, const std::vector<ModuleUpdate>& updates,
                           ExitCode code)
{
    for (const ModuleUpdate& update : updates) {
        if (update.outcome == Outcome::kUpdated && !update.reason.empty()) {
            warning(
                warningOfSuccess(update.name, update.reason) +
                (source.type == UPDATE_EMP
                     ? "; its package was deleted, \"quillonctl modules download\" brings it back"
                     : ""));
        }
    }
    output_.event("modules-update",
                  {{"source", source.name}, {"exitCode", code}, {"modules", arrayOf(updates)}});
    std::vector<TableRow> rows = {{"NAME", "RUNNING", "OUTCOME"}};
    std::string troubled;
    std::string whyNotBegun;
    for (const ModuleUpdate& update : updates) {
        rows.push_back({orDash(update.name), orDash(update.running), describe(update)});
        if (update.outcome == Outcome::kNotBegun) {
            whyNotBegun = update.reason;
        }
        if (update.outcome == Outcome::kFailed || update.outcome == Outcome::kTimedOut) {
            troubled += " " + update.name;
        }
    }
    table(rows);
    if (!troubled.empty()) {
        complainToPeople("not updated as wanted:" + troubled);
    }
    for (const ModuleUpdate& update : updates) {
        complainOf(update.remedy);
    }
    if (code == kExitInterrupted) {
        complainToPeople("interrupted; not every update was begun");
    }
    if (code == kExitSystem) {
        complainToPeople("not every update was begun: " + whyNotBegun);
    }
}

void ModuleReport::downloading(std::size_t packages)
{
    line(packages == 1 ? "Downloading 1 package"
                       : "Downloading " + std::to_string(packages) + " packages");
}

void ModuleReport::downloaded(const std::vector<ModuleDownload>& downloads, ExitCode code)
{
    output_.event("modules-download", {{"exitCode", code}, {"modules", arrayOf(downloads)}});
    std::string troubled;
    for (const ModuleDownload& download : downloads) {
        line(download.name + ": " +
             (download.downloaded ? "downloaded" : "not downloaded, " + download.reason));
        if (!download.downloaded) {
            troubled += " " + download.name;
        }
    }
    if (code != kExitSuccess) {
        complainToPeople("not downloaded:" + troubled);
    }
}

void ModuleReport::unlocked(bool released)
{
    output_.say(
        "modules-unlock", {{"released", released}},
        released ? "The update semaphore was left behind and is released" : "Nothing is locked");
}

void ModuleReport::warning(const std::string& text)
{
    const std::size_t longest = output_.isForPrograms() ? kLongestText : kLongestLine;
    output_.warning(cut(printable(text), longest));
}

void ModuleReport::error(ExitCode code, const std::string& text)
{
    output_.error(code, output_.isForPrograms() ? cut(text, kLongestText) : fit(text));
}

/// Says what programs are told otherwise.
void ModuleReport::complainToPeople(const std::string& text)
{
    if (!output_.isForPrograms()) {
        output_.complain(fit(text));
    }
}

/// @param remedy  empty for nothing
void ModuleReport::complainOf(const std::string& remedy)
{
    if (!remedy.empty()) {
        complainToPeople(remedy);
    }
}

void ModuleReport::line(const std::string& text)
{
    output_.line(fit(text));
}

/// @param rows  the headings, and a row for each module
void ModuleReport::table(std::vector<TableRow> rows)
{
    if (rows.size() == 1) {
        line("No modules are installed");
        return;
    }
    for (const std::string& text : aligned(std::move(rows))) {
        line(text);
    }
}

}  // namespace quillon
