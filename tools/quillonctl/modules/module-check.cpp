#include "tools/quillonctl/modules/module-check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "base/fd.h"
#include "base/regular-file.h"
#include "src/src/fw-update-mount-manager.h"
#include "src/support/paths.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/module-events.h"
#include "tools/quillonctl/modules/update-slot.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/shared/services-user.h"

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

/// @return who, if it is another user
std::optional<uid_t> ownerOfForeignList()
{
    struct stat status = {};
    const bool isForeign = lstat(paths::kUpdateList, &status) == 0 && S_ISREG(status.st_mode) &&
                           status.st_uid != geteuid();
    return isForeign ? std::optional(status.st_uid) : std::nullopt;
}

/// In /tmp only its owner and root can replace a file, and the system may refuse even root to write
/// to it.
void makeRoomForList()
{
    if (ownerOfForeignList()) {
        static_cast<void>(unlink(paths::kUpdateList));
    }
}

/// Gives the list to the service's user, who could not replace it otherwise. Other users take
/// theirs away.
void handListOver()
{
    const uid_t user = servicesUser();
    const UniqueFd file(
        open(paths::kUpdateList, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (geteuid() == user || !file || fstat(file.get(), &status) != 0 ||
        status.st_uid != geteuid() || status.st_nlink != 1) {
        return;
    }
    if (geteuid() == 0) {
        static_cast<void>(fchown(file.get(), user, status.st_gid) == 0);
    } else {
        static_cast<void>(unlink(paths::kUpdateList));
    }
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

constexpr std::size_t kColumns = 10;

ModuleChild::Row rowOf(const ModuleCheck& check)
{
    return {check.name,
            std::to_string(static_cast<int>(check.decision)),
            check.running,
            check.offered,
            std::to_string(check.seconds),
            check.reason,
            check.problem.code,
            check.problem.text,
            std::to_string(check.code),
            check.remedy};
}

ModuleCheck checkOf(const ModuleChild::Row& row)
{
    constexpr int kLast = static_cast<int>(Decision::kUnusable);
    const int decision = std::clamp(std::atoi(row[1].c_str()), 0, kLast);
    const auto seconds = static_cast<std::uint32_t>(std::strtoul(row[4].c_str(), nullptr, 10));
    const auto code = static_cast<ExitCode>(std::atoi(row[8].c_str()));
    return {row[0],
            static_cast<Decision>(decision),
            row[2],
            row[3],
            seconds,
            row[5],
            {row[6], row[7]},
            code,
            row[9]};
}

}  // namespace

bool isPackageMounted(const std::string& identifier)
{
    // A package's name is letters and digits, so nothing of it is escaped in the table.
    const std::string mountPoint = paths::kMountedPackages + identifier;
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

MountTrouble mountTroubleOf(const FWUpdateSymbol& module)
{
    const std::string package = "the package " + module.getEMPName() + " of " + module.getLibName();
    std::string trouble;
    const std::string updater =
        isPackageMounted(module.getEMPName()) ? UpdateSlot::updater(trouble) : std::string();
    if (!updater.empty()) {
        return {kExitAlreadyUpdating, "another control layer is updating: " + updater,
                package +
                    " is in use; \"quillonctl progress --follow\" shows the other update, "
                    "repeat the command after it"};
    }
    return {kExitSystem, phraseOf({-1, ModuleReason::kNotMounted, {}}),
            package +
                " cannot be mounted; \"quillonctl doctor\" looks at the mounting helper, and its "
                "log (" +
                logOf("QUILLON-PRIVILEGED") +
                ") tells why it has refused; if it does not answer, root starts it anew with \"" +
                restartMountingHelper() + "\""};
}

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
    check.problem = sharedNameOf(module);
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
    if (finding.reason == ModuleReason::kNotMounted) {
        MountTrouble trouble = mountTroubleOf(module);
        check.code = trouble.code;
        check.reason = std::move(trouble.reason);
        check.remedy = std::move(trouble.remedy);
    } else if (finding.reason == ModuleReason::kNoPackage) {
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
    makeRoomForList();
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
    if (!isListWhole(listed) && (geteuid() == 0 || !ownerOfForeignList())) {
        throw Failure{kExitSystem, std::string("the update list cannot be written whole, make room "
                                               "for it or see what is in its place: ") +
                                       paths::kUpdateList};
    }
    handListOver();
    std::vector<ModuleCheck> checks;
    for (FWUpdateSymbol& module : allModules()) {
        checks.push_back(describeCheck(module, source));
    }
    return checks;
}

std::vector<ModuleCheck> checkModulesApart(ModuleChild& child, const ModuleSource& source)
{
    const ModuleChild::Rows rows = child.run(kColumns, [&] {
        openRegistry();
        ModuleChild::Rows checked;
        try {
            for (const ModuleCheck& check : checkModules(source)) {
                checked.push_back(rowOf(check));
            }
        } catch (const Failure&) {
            releasePackages(source);
            throw;
        }
        releasePackages(source);
        return checked;
    });
    std::vector<ModuleCheck> checks;
    for (const ModuleChild::Row& row : rows) {
        checks.push_back(checkOf(row));
        child.markBroken(checks.back());
    }
    return checks;
}

std::string troubleOfList()
{
    const std::optional<uid_t> owner = ownerOfForeignList();
    // Other programs want the list of the service's user, and not that of a member of the group.
    if (!owner || geteuid() == 0 || *owner == servicesUser()) {
        return {};
    }
    return std::string("the update list ") + paths::kUpdateList + " belongs to " +
           nameOfUser(*owner) +
           " and tells what that user has found: that user or root can remove it";
}

bool isNoneUsable(const std::vector<ModuleCheck>& checks)
{
    return !checks.empty() &&
           std::all_of(checks.begin(), checks.end(), [](const ModuleCheck& check) {
               return check.decision == Decision::kUnusable;
           });
}

ExitCode mountTroubleIn(const std::vector<ModuleCheck>& checks)
{
    for (const ModuleCheck& check : checks) {
        if (check.code != kExitSuccess) {
            return check.code;
        }
    }
    return kExitSuccess;
}

bool releasePackage(FWUpdateSymbol& module)
{
    return !isPackageMounted(module.getEMPName()) || module.unmountEMPImage();
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

void releasePackages(const std::set<std::string>& identifiers)
{
    // Unseen: it may be about to be mounted for a child that was ended. Who mounts carries out what
    // it is asked in order.
    for (const std::string& identifier : identifiers) {
        FWMountManager::getInstance()->UMount(paths::kMountedPackages + identifier);
    }
}

}  // namespace quillon
