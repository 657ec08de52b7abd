#include "tools/quillonctl/modules/module-probe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "base/fd.h"
#include "src/support/paths.h"
#include "tools/quillonctl/recorded-run.h"
#include "tools/shared/outside-text.h"
#include "tools/shared/text-table.h"

namespace quillon {

namespace {

constexpr std::size_t kColumns = 9;
constexpr std::size_t kLongestReason = 1000;

/// In the child. What a module prints is no part of a table, and a process that it leaves behind
/// must not keep the client's lock.
void shutOff()
{
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(nowhere.get(), STDOUT_FILENO);
    dup2(nowhere.get(), STDERR_FILENO);
    closefrom(STDERR_FILENO + 1);
}

bool mayNotEnter(const char* directory)
{
    return access(directory, X_OK) != 0 && errno == EACCES;
}

ModuleEntry entryOf(FWUpdateSymbol& module)
{
    ModuleEntry entry;
    entry.name = module.getLibName();
    entry.kind = kindOf(module);
    entry.running = runningVersion(module).value_or("");
    entry.problem = sharedNameOf(module);
    if (entry.kind == ModuleKind::kFirmware) {
        entry.firmwareName = module.getFirmwareName();
        entry.package = module.getEMPName();
        if (!mayNotEnter(paths::kPackages)) {
            entry.hasPackage = module.getIMGExists();
        }
    }
    if (entry.kind == ModuleKind::kUnusable) {
        entry.reason = defectOf(module);
    }
    return entry;
}

ModuleChild::Row rowOf(const ModuleEntry& entry)
{
    return {entry.name,
            std::to_string(static_cast<int>(entry.kind)),
            entry.running,
            entry.firmwareName,
            entry.package,
            entry.hasPackage ? std::to_string(static_cast<int>(*entry.hasPackage)) : "",
            entry.reason,
            entry.problem.code,
            entry.problem.text};
}

ModuleEntry entryOf(const ModuleChild::Row& row)
{
    constexpr int kLast = static_cast<int>(ModuleKind::kUnusable);
    const int kind = std::clamp(std::atoi(row[1].c_str()), 0, kLast);
    ModuleEntry entry;
    entry.name = row[0];
    entry.kind = static_cast<ModuleKind>(kind);
    entry.running = row[2];
    entry.firmwareName = row[3];
    entry.package = row[4];
    if (!row[5].empty()) {
        entry.hasPackage = row[5] == "1";
    }
    entry.reason = row[6];
    entry.problem = {row[7], row[8]};
    return entry;
}

/// What the service has recorded of its start; nothing unless it runs and has loaded its modules.
std::optional<RecordedRun> servicesStart()
{
    std::optional<RecordedRun> start = readRecordedRun("start");
    return start && start->result && !hasServiceEnded(*start) ? start : std::nullopt;
}

}  // namespace

std::vector<ModuleEntry> probeModules(const ModuleTimes& times, const std::string& only)
{
    ModuleChild child(times);
    const ModuleChild::Rows rows = child.run(kColumns, [&] {
        shutOff();
        openRegistry(only);
        ModuleChild::Rows found;
        for (FWUpdateSymbol& module : FWUpdateSymbolManager::getInstance()->modules()) {
            found.push_back(rowOf(entryOf(module)));
        }
        return found;
    });
    std::vector<ModuleEntry> entries;
    for (const ModuleChild::Row& row : rows) {
        entries.push_back(entryOf(row));
        child.markBroken(entries.back());
    }
    return entries;
}

std::vector<ModuleEntry> listModules(const ModuleTimes& times)
{
    const std::optional<RecordedRun> start = servicesStart();
    std::vector<ModuleEntry> entries;
    if (!start || access(paths::kModules, R_OK | X_OK) == 0) {
        entries = probeModules(times);
    }
    if (!start) {
        return entries;
    }
    for (ModuleEntry& entry : entries) {
        entry.service = entry.kind == ModuleKind::kFirmware ? "not-seen" : "";
    }
    for (const RecordedModule& module : start->modules) {
        auto entry = std::find_if(entries.begin(), entries.end(),
                                  [&](const ModuleEntry& one) { return one.name == module.name; });
        if (entry == entries.end()) {
            entry = entries.insert(entry, ModuleEntry());
            entry->name = module.name;
            entry->reason = std::string("this user does not see it in ") + paths::kModules;
        }
        const bool isLoaded = module.finding && module.finding->result == 0;
        entry->service = isLoaded ? "loaded" : "refused";
        entry->serviceReason = !isLoaded && module.finding ? phraseOf(*module.finding) : "";
    }
    return entries;
}

ModuleAnswers askModules(const ModuleTimes& times)
{
    ModuleAnswers answers;
    for (const ModuleEntry& entry : probeModules(times)) {
        const std::string reason = joined(entry.reason, entry.problem.text);
        answers[entry.name] = {entry.running, entry.problem.code, cut(reason, kLongestReason)};
    }
    return answers;
}

}  // namespace quillon
