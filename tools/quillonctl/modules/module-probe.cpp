#include "tools/quillonctl/modules/module-probe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/fd.h"
#include "tools/quillonctl/outside-text.h"
#include "tools/quillonctl/text-table.h"

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
        entry.hasPackage = module.getIMGExists();
    }
    if (entry.kind == ModuleKind::kUnusable) {
        entry.reason = defectOf(module);
    }
    return entry;
}

ModuleChild::Row rowOf(const ModuleEntry& entry)
{
    return {entry.name,        std::to_string(static_cast<int>(entry.kind)),
            entry.running,     entry.firmwareName,
            entry.package,     entry.hasPackage ? "1" : "0",
            entry.reason,      entry.problem.code,
            entry.problem.text};
}

ModuleEntry entryOf(const ModuleChild::Row& row)
{
    constexpr int kLast = static_cast<int>(ModuleKind::kUnusable);
    const int kind = std::clamp(std::atoi(row[1].c_str()), 0, kLast);
    return {row[0], static_cast<ModuleKind>(kind),
            row[2], row[3],
            row[4], row[5] == "1",
            row[6], {row[7], row[8]}};
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
