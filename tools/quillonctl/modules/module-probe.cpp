#include "tools/quillonctl/modules/module-probe.h"

#include <algorithm>
#include <cstdlib>

namespace quillon {

namespace {

constexpr std::size_t kColumns = 9;

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

}  // namespace quillon
