#include "tools/quillonctl/doctor/surroundings.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

#include "tools/shared/services-user.h"

namespace quillon::doctor {

namespace {

namespace fs = std::filesystem;

/// As the kernel shows it: the first 15 characters of the program's name.
constexpr const char* kService = "quillon-service";

enum class Owner { kRootOrService, kAnybody };

/// Whether a process has this name and such an owner, and is not of a container below this one,
/// which has queues of its own.
bool isProgram(const fs::path& process, const std::string& name, Owner owner)
{
    std::ifstream status(process / "status");
    bool isCalledSo = false;
    bool isOwners = owner == Owner::kAnybody;
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string key;
        std::string first;
        std::string second;
        words >> key >> first >> second;
        if (key == "Name:") {
            isCalledSo = first == name;
        } else if (key == "Uid:") {
            const auto user = static_cast<uid_t>(std::strtoul(second.c_str(), nullptr, 10));
            isOwners = isOwners || user == 0 || isServicesUser(user);
        }
        const bool isBelow = key == "NSpid:" && !second.empty();
        const bool hasEnded = key == "State:" && first == "Z";
        if (!isCalledSo || isBelow || hasEnded) {
            return false;
        }
    }
    return isCalledSo && isOwners;
}

std::optional<pid_t> processOf(const std::string& name, Owner owner)
{
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string number = entry->path().filename();
        const auto process = static_cast<pid_t>(std::strtol(number.c_str(), nullptr, 10));
        if (process > 0 && process != getpid() && isProgram(entry->path(), name, owner)) {
            return process;
        }
    }
    return std::nullopt;
}

std::vector<gid_t> groupsOf(uid_t user)
{
    const passwd* entry = getpwuid(user);
    if (entry == nullptr) {
        return {};
    }
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count);
    groups.resize(std::min(groups.size(), static_cast<std::size_t>(std::max(count, 0))));
    return groups;
}

}  // namespace

Surroundings lookAround()
{
    // Where a mount option hides the processes of others, it hides this one as well.
    const bool seesProcesses = access("/proc/1", F_OK) == 0;
    return {geteuid() == 0,
            servicesUser(),
            processOf(kService, Owner::kRootOrService),
            seesProcesses,
            std::time(nullptr),
            readRecordedRun("start"),
            readRecordedRun("estimate")};
}

std::optional<pid_t> otherProcess(const std::string& name)
{
    return processOf(name, Owner::kAnybody);
}

std::optional<struct stat> statusOf(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

bool isStrangers(const struct stat& status)
{
    return status.st_uid != 0 && !isServicesUser(status.st_uid);
}

bool mayServiceUse(const Surroundings& around, const struct stat& status, unsigned rights)
{
    if (around.servicesUser == 0) {
        return true;
    }
    const std::vector<gid_t> groups = groupsOf(around.servicesUser);
    const bool isMember = std::find(groups.begin(), groups.end(), status.st_gid) != groups.end();
    const unsigned shift = status.st_uid == around.servicesUser ? 6U : isMember ? 3U : 0U;
    return (status.st_mode >> shift & rights) == rights;
}

}  // namespace quillon::doctor
