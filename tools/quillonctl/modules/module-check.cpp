#include "tools/quillonctl/modules/module-check.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>

#include "base/regular-file.h"
#include "src/support/paths.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-events.h"
#include "tools/quillonctl/modules/update-slot.h"

namespace quillon {

namespace {

std::vector<FWUpdateSymbol>& allModules()
{
    return FWUpdateSymbolManager::getInstance()->modules();
}

/// Whether the update list has as many lines as the registry has counted, each that of a module
/// with a mark. The registry writes it without looking whether that succeeds.
bool isListWhole(int count)
{
    std::set<std::string> lines;
    std::size_t size = 0;
    for (const FWUpdateSymbol& module : allModules()) {
        if (module.getNeedUpdate()) {
            const std::string line = module.getLibName() + " " + module.getEMPName();
            size += line.size() + 1;
            lines.insert(line);
        }
    }
    const std::optional<std::string> list = readRegularFile(paths::kUpdateList, size);
    if (!list) {
        return false;
    }
    std::istringstream text(*list);
    int found = 0;
    for (std::string line; std::getline(text, line); ++found) {
        if (text.eof() || lines.erase(line) == 0) {  // a whole line ends in a line feed
            return false;
        }
    }
    return found == count;
}

std::vector<ModuleCheck> checkOneByOne(const ModuleSource& source)
{
    std::vector<ModuleCheck> checks;
    for (FWUpdateSymbol& module : allModules()) {
        if (isInterrupted()) {
            throw UpdateSlot::instance().interruption();
        }
        if (kindOf(module) == ModuleKind::kFirmware) {
            char noText[] = "";
            tell(ModuleEvent::kChecking, module);
            const int need = resultOf([&] { return module.isNeedUpdate(source.caller, noText); });
            tell(ModuleEvent::kDecided, module, need);
        }
        checks.push_back(describeCheck(module, source));
    }
    return checks;
}

/// Also true when that cannot be told: descriptors may be used up.
bool isPackageMounted(const FWUpdateSymbol& module)
{
    // A package's name is letters and digits, so nothing of it is escaped in the table.
    const std::string mountPoint = paths::kMountedPackages + module.getEMPName();
    std::ifstream table(paths::kMountTable);
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string device;
        std::string directory;
        if (words >> device >> directory && directory == mountPoint) {
            return true;
        }
    }
    return !table.is_open() || table.bad();
}

}  // namespace

ModuleCheck describeCheck(FWUpdateSymbol& module, const ModuleSource& source)
{
    ModuleCheck check;
    check.name = module.getLibName();
    const ModuleKind kind = kindOf(module);
    if (kind == ModuleKind::kUnusable) {
        check.reason = defectOf(module);
        return check;
    }
    check.running = runningVersion(module).value_or("");
    if (kind == ModuleKind::kProcess) {
        check.decision = Decision::kByNameOnly;
        check.reason = "process module";
        return check;
    }
    const ModuleFinding finding = ModuleEvents::instance().of(check.name).check;
    if (finding.reason != ModuleReason::kException && module.getNeedUpdate()) {
        check.decision = Decision::kNeeded;
        check.offered = module.getInformation().version;
        // The registry keeps it in an int, but has no sign for it.
        check.seconds = static_cast<std::uint32_t>(module.getExpectedUpdateTime());
        return check;
    }
    if (finding.reason == ModuleReason::kUpToDate) {
        check.decision = Decision::kUpToDate;
        check.offered = module.getInformation().version;
        return check;
    }
    const bool isEmpty = finding.reason == ModuleReason::kNoImage &&
                         !module.file_exists(module.getInformationPath(source.type));
    check.decision = Decision::kUnsound;
    check.reason = phraseOf(finding);
    if (finding.reason == ModuleReason::kNoPackage) {
        check.decision = Decision::kNothingOffered;
    } else if (isEmpty && source.type == UPDATE_EMP) {
        check.reason = "its package has no image";
    } else if (isEmpty) {
        check.decision = Decision::kNothingOffered;
        check.reason = "no image";
    }
    return check;
}

std::vector<ModuleCheck> checkModules(const ModuleSource& source)
{
    if (source.type != UPDATE_EMP) {
        return checkOneByOne(source);
    }
    int listed = -1;
    const std::string raised = raisedBy([&] {
        listed = FWUpdateSymbolManager::getInstance()->writeFirmwareUpdateList(runningFlag());
    });
    if (!raised.empty()) {
        // One module's exception ended the pass; the list is then not complete, the marks will be.
        return checkOneByOne(source);
    }
    if (listed < 0 && isInterrupted()) {
        throw UpdateSlot::instance().interruption();
    }
    if (listed < 0) {
        throw Failure{kExitSystem,
                      std::string("the update list's path leads elsewhere: ") + paths::kUpdateList};
    }
    if (!isListWhole(listed)) {
        throw Failure{kExitSystem, std::string("the update list cannot be written whole, make room "
                                               "for it or see what is in its place: ") +
                                       paths::kUpdateList};
    }
    std::vector<ModuleCheck> checks;
    for (FWUpdateSymbol& module : allModules()) {
        checks.push_back(describeCheck(module, source));
    }
    return checks;
}

bool isNoneUsable(const std::vector<ModuleCheck>& checks)
{
    return !checks.empty() &&
           std::all_of(checks.begin(), checks.end(), [](const ModuleCheck& check) {
               return check.decision == Decision::kUnusable;
           });
}

bool releasePackage(FWUpdateSymbol& module)
{
    return !isPackageMounted(module) || module.unmountEMPImage();
}

void releasePackages(const ModuleSource& source)
{
    if (source.type != UPDATE_EMP) {
        return;
    }
    for (FWUpdateSymbol& module : allModules()) {
        if (kindOf(module) == ModuleKind::kFirmware) {
            releasePackage(module);
        }
    }
}

}  // namespace quillon
