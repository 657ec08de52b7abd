#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>
#include <vector>

#include "helpers/lifecycle/trusted-places.h"
#include "src/support/paths.h"
#include "tools/quillonctl/doctor/checks.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/shared/services-user.h"

namespace quillon::doctor {

namespace {

namespace fs = std::filesystem;

constexpr int kMostLooks = 10000;

std::string remedyAgainst(const std::string& module)
{
    return "take " + module + ".so out of " + paths::kModules +
           " or mend it, then run: " + restartService();
}

bool isCutOff(const RecordedRun& record)
{
    return !record.result && hasServiceEnded(record);
}

/// @return empty when it was at no module
std::string moduleAtWork(const RecordedRun& record)
{
    const RecordedModule* module = record.present();
    return module != nullptr ? module->name : "";
}

Finding moduleEndedStart(Severity severity, const std::string& module, const char* which)
{
    return {severity, "module-ended-start",
            "the module " + module + " took the service down while it was loaded, at the " + which,
            remedyAgainst(module)};
}

/// @param[out] failure  why the directory cannot be read
std::vector<fs::path> librariesIn(const char* directory, std::error_code& failure)
{
    std::vector<fs::path> libraries;
    std::error_code end;
    for (fs::directory_iterator entry(directory, failure);
         !failure && !end && entry != fs::directory_iterator(); entry.increment(end)) {
        if (entry->path().extension() == ".so") {
            libraries.push_back(entry->path());
        }
    }
    return libraries;
}

/// Whether quillon-unit has moved it away and nobody has put one back: then checkQuarantine() says
/// all of it.
bool isInQuarantine(const std::string& module)
{
    const std::string file = module + ".so";
    return statusOf(paths::kQuarantine + file) && !statusOf(paths::kModules + file);
}

/// Gives up in a directory with very many files.
/// @return whether there is an image of any module in the directory
bool hasImages(const std::string& directory)
{
    std::error_code failure;
    int looks = 0;
    for (fs::directory_iterator entry(directory, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        if (++looks > kMostLooks || entry->path().extension() == ".bin") {
            return true;
        }
    }
    return false;
}

}  // namespace

Findings checkModules(const Surroundings& around)
{
    std::error_code failure;
    const std::vector<fs::path> modules = librariesIn(paths::kModules, failure);
    if (failure == std::errc::permission_denied && !around.isRoot) {
        return {notChecked(std::string("the modules in ") + paths::kModules)};
    }
    const auto directory = statusOf(paths::kModules);
    if (failure || !directory) {
        return {error("modules-unreadable",
                      std::string(paths::kModules) + " cannot be read: " + failure.message(),
                      std::string("install -d -m 755 ") + paths::kModules)};
    }
    if (!mayServiceUse(around, *directory, R_OK | X_OK)) {
        return {error("modules-unreadable",
                      nameOfUser(around.servicesUser) + " cannot read " + paths::kModules,
                      std::string("chmod 755 ") + paths::kModules)};
    }
    Findings findings;
    for (const fs::path& path : modules) {
        struct stat status = {};
        if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
            !mayServiceUse(around, status, R_OK)) {
            findings.push_back(error(
                "module-unreadable",
                path.string() + " is no file that " + nameOfUser(around.servicesUser) + " can read",
                "chmod 755 " + unit::quoted(path) + ", or remove it"));
        }
    }
    if (modules.empty()) {
        findings.push_back(warning("modules-none",
                                   std::string("there is no module *.so in ") + paths::kModules +
                                       ": there is nothing to update",
                                   "install the device's modules there"));
    }
    return findings;
}

Findings checkQuarantine(const Surroundings& around)
{
    std::error_code failure;
    const std::vector<fs::path> modules = librariesIn(paths::kQuarantine, failure);
    if (failure == std::errc::permission_denied && !around.isRoot) {
        return {notChecked(std::string("the modules in ") + paths::kQuarantine)};
    }
    Findings findings;
    for (const fs::path& path : modules) {
        const bool isReplaced = fs::exists(paths::kModules + path.filename().string(), failure);
        findings.push_back(
            warning("module-quarantined",
                    "the module " + path.stem().string() +
                        " is in quarantine: it ended the service at several starts in a row" +
                        (isReplaced ? "; there is another one of that name now" : ""),
                    isReplaced ? "rm " + unit::quoted(path)
                               : "once it is mended: mv -n " + unit::quoted(path) + " " +
                                     paths::kModules + " && " + restartService()));
    }
    return findings;
}

Findings checkStarts(const Surroundings& around)
{
    const std::optional<RecordedRun>& start = around.start;
    if (!start) {
        return {};
    }
    if (isCutOff(*start)) {
        if (const std::string module = moduleAtWork(*start); !module.empty()) {
            if (isInQuarantine(module)) {
                return {};
            }
            return {moduleEndedStart(Severity::kError, module, "last start")};
        }
        return {error("start-cut-off",
                      "the service ended at its last start, before it took commands",
                      serviceLog() + " tells why, then: " + restartService())};
    }
    Findings findings;
    const std::optional<RecordedRun> earlier = readRecordedRun("earlier-start");
    const std::string culprit = earlier && isCutOff(*earlier) ? moduleAtWork(*earlier) : "";
    if (!culprit.empty() && !isInQuarantine(culprit)) {
        findings.push_back(moduleEndedStart(Severity::kWarning, culprit, "start before the last"));
    }
    for (const RecordedModule& module : start->modules) {
        if (module.finding && module.finding->result != 0) {
            findings.push_back(warning("module-refused",
                                       "the service does without the module " + module.name + ": " +
                                           phraseOf(*module.finding),
                                       remedyAgainst(module.name)));
        }
    }
    return findings;
}

Findings checkRuns(const Surroundings& around)
{
    Findings findings;
    const std::optional<RecordedRun> update = readRecordedRun("update");
    if (update && isCutOff(*update)) {
        const std::string module = moduleAtWork(*update);
        findings.push_back(error(
            "update-cut-off",
            "the service ended during the update" + (module.empty() ? "" : " of " + module) +
                " from " + update->directory + ": the component may hold an incomplete firmware",
            "leave the device switched on and repeat the update from that stick: "
            "quillonctl update " +
                unit::quoted(update->directory)));
    }
    const std::optional<RecordedRun>& look = around.estimate;
    if (look && isCutOff(*look)) {
        const std::string module = moduleAtWork(*look);
        findings.push_back(warning("estimate-cut-off",
                                   "the service ended while it looked at " + look->directory +
                                       (module.empty() ? "" : ", at the module " + module),
                                   serviceLog() + " tells why; repeat it: quillonctl check " +
                                       unit::quoted(look->directory)));
    }
    return findings;
}

/// Whether the service has the module marked. A look that finds no image leaves the mark of the one
/// before the update, whose record is gone by then; the update's own is there.
bool isMarked(const RecordedModule& module, const std::optional<RecordedRun>& update)
{
    if (!module.finding || module.finding->result >= 0) {
        return module.finding && module.finding->result == 1;
    }
    return update &&
           std::any_of(update->modules.begin(), update->modules.end(),
                       [&](const RecordedModule& one) { return one.name == module.name; });
}

Findings checkMarks(const Surroundings& around)
{
    const std::optional<RecordedRun>& look = around.estimate;
    if (!look || !look->result || around.service != look->service || hasImages(look->directory)) {
        return {};
    }
    std::optional<RecordedRun> update = readRecordedRun("update");
    if (update && (update->service != look->service || update->began > look->began)) {
        update.reset();
    }
    std::string marked;
    for (const RecordedModule& module : look->modules) {
        if (isMarked(module, update)) {
            marked += (marked.empty() ? "" : ", ") + module.name;
        }
    }
    if (marked.empty()) {
        return {};
    }
    return {warning("marks-stale",
                    "modules are still marked for the images in " + look->directory +
                        ", which are gone, so an update without these modules fails: " + marked,
                    "plug that stick in and run: quillonctl check " +
                        unit::quoted(look->directory) + "; or: " + restartService())};
}

Findings checkPackages(const Surroundings& around)
{
    std::set<std::string> mounted;
    std::ifstream mounts(paths::kMountTable);
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream words(line);
        std::string device;
        std::string place;
        words >> device >> place;
        if (place.rfind(paths::kMountedPackages, 0) == 0) {
            mounted.insert(place);
        }
    }
    if (mounted.empty() || otherProcess("quillonctl")) {
        return {};
    }
    if (!around.seesProcesses) {
        return {notChecked("who uses the mounted packages")};
    }
    Findings findings;
    for (const std::string& place : mounted) {
        findings.push_back(warning(
            "package-mounted", place + " is still mounted, and no quillonctl is at work",
            "umount " + unit::quoted(place) + ", as root, unless another control layer uses it"));
    }
    return findings;
}

}  // namespace quillon::doctor
