#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>

#include "base/piped-program.h"
#include "src/support/paths.h"
#include "tools/quillonctl/doctor/checks.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/shared/services-user.h"

namespace quillon::doctor {

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr const char* kService = "quillon.service";
constexpr std::chrono::seconds kLongestSystemctl(10);
constexpr std::size_t kMostOutput = 4096;
constexpr std::time_t kStartOf2024 = 1704067200;
constexpr std::uint64_t kMebibyte = 1U << 20U;

/// What has to be writable, and how much room it wants.
struct Place
{
    const char* path;
    std::uint64_t least;  ///< bytes
};

constexpr Place kPlaces[] = {
    {"/tmp", kMebibyte},
    {"/run", kMebibyte / 4},
    {"/dev/shm", kMebibyte / 16},
    {"/var/lib/quillon", kMebibyte},
    {paths::kPackages, 16 * kMebibyte},
    {paths::kSharedFirmware, 16 * kMebibyte},
};

using UnitValues = std::map<std::string, std::string>;

/// @param values  of one unit's properties; a failed helper is found at its socket
Findings judgeUnit(UnitValues& values)
{
    const std::string& name = values["Id"];
    if (values["LoadState"] == "masked") {
        return {warning("unit-masked", "systemd does not start " + name + ", since it is masked",
                        "systemctl unmask " + name + "; systemctl start " + name)};
    }
    if (name != kService || values["ActiveState"] != "failed") {
        return {};
    }
    // systemd mostly leaves the reason of the last end there when it gives up.
    const long restarts = std::strtol(values["NRestarts"].c_str(), nullptr, 10);
    const long most = std::strtol(values["StartLimitBurst"].c_str(), nullptr, 10);
    if (values["Result"] == "start-limit-hit" || (most > 0 && restarts >= most)) {
        return {error(
            "start-limit",
            "systemd no longer starts the service: it failed too often (" + values["Result"] + ")",
            "see to the other findings, then run: systemctl reset-failed quillon; systemctl "
            "start quillon")};
    }
    return {error("unit-failed", "the unit has failed (" + values["Result"] + ")",
                  "journalctl -b -u quillon tells why, then: systemctl restart quillon")};
}

/// Makes a directory of packages as it has to be.
std::string provideDirectory(const Surroundings& around, const char* path)
{
    if (hasSystemd()) {
        return "systemd-tmpfiles --create quillon.conf";
    }
    return "install -d -o " + std::to_string(around.servicesUser) + " -m " +
           (path == paths::kMountedPackages ? "2770 " : "2775 ") + path;
}

Findings checkDirectory(const Surroundings& around, const char* path)
{
    const auto status = statusOf(path);
    if (!status && errno == EACCES) {
        return {notChecked(path)};
    }
    const std::string remedy = provideDirectory(around, path);
    if (!status) {
        return {warning("directory-unusable",
                        std::string(path) + " is missing: no package can be used", remedy)};
    }
    if (!mayServiceUse(around, *status, R_OK | W_OK | X_OK)) {
        return {warning("directory-unusable",
                        nameOfUser(around.servicesUser) + " cannot write to " + path, remedy)};
    }
    if (path == paths::kMountedPackages && (status->st_mode & S_IRWXO) != 0) {
        return {warning("packages-open",
                        std::string("every user can enter ") + path +
                            " and keep a package from being updated from",
                        remedy)};
    }
    return {};
}

}  // namespace

Findings checkDirectories(const Surroundings& around)
{
    Findings findings;
    for (const char* path : {paths::kPackages, paths::kMountedPackages, paths::kSharedFirmware}) {
        append(findings, checkDirectory(around, path));
    }
    return findings;
}

Findings checkFileSystems(const Surroundings& /*around*/)
{
    Findings findings;
    for (const Place& place : kPlaces) {
        struct statvfs system = {};
        if (statvfs(place.path, &system) != 0) {
            continue;
        }
        if ((system.f_flag & ST_RDONLY) != 0) {
            findings.push_back(error("read-only",
                                     std::string(place.path) + " is on a read-only file system",
                                     std::string("mount -o remount,rw ") + place.path +
                                         ", or put a writable file system there"));
        }
        const std::uint64_t free = std::uint64_t{system.f_bavail} * system.f_frsize;
        if (free < place.least || (system.f_files > 0 && system.f_favail == 0)) {
            findings.push_back(warning("space-low",
                                       std::string(place.path) + " has room for " +
                                           std::to_string(free / 1024) + " KiB and " +
                                           std::to_string(system.f_favail) + " files",
                                       std::string("df -h ") + place.path + ", and make room"));
        }
    }
    for (const char* path : {paths::kModules, paths::kVerifierLibrary}) {
        struct statvfs file = {};
        if (statvfs(path, &file) == 0 && (file.f_flag & ST_NOEXEC) != 0) {
            findings.push_back(error("not-executable",
                                     std::string(path) +
                                         " is on a file system mounted with noexec, "
                                         "so it cannot be loaded",
                                     std::string("mount -o remount,exec ") + path));
        }
    }
    return findings;
}

Findings checkClock(const Surroundings& around)
{
    if (around.now >= kStartOf2024) {
        return {};
    }
    return {warning(
        "clock-wrong",
        "the clock is before 2024: no server's certificate is valid then, and nothing is "
        "downloaded",
        std::string("set the clock: ") + (hasSystemd() ? "timedatectl set-time" : "date -s") +
            " \"YYYY-MM-DD hh:mm:ss\"")};
}

Findings judgeUnits(const std::string& properties)
{
    Findings findings;
    UnitValues values;
    std::istringstream lines(properties + "\n\n");
    for (std::string line; std::getline(lines, line);) {
        const std::size_t end = line.find('=');
        if (end != std::string::npos) {
            values[line.substr(0, end)] = line.substr(end + 1);
            continue;
        }
        append(findings, judgeUnit(values));
        values.clear();
    }
    return findings;
}

Findings checkUnits(const Surroundings& /*around*/)
{
    if (!hasSystemd()) {
        return {};
    }
    ProgramCall call;
    call.path = kSystemctl;
    call.words = {"systemctl",
                  "show",
                  "--property=Id,LoadState,ActiveState,Result,NRestarts,StartLimitBurst",
                  kService,
                  "quillon-storage.socket",
                  "quillon-privileged.socket"};
    call.outputLimit = kMostOutput;
    call.longest = kLongestSystemctl;
    SecretBytes output;
    const ProgramEnd end = runPiped(call, {}, output);
    if (!end.failure.empty()) {
        return {note("not-checked", "not checked: the units: " + end.failure,
                     "systemctl status quillon")};
    }
    return judgeUnits({output.begin(), output.end()});
}

}  // namespace quillon::doctor
