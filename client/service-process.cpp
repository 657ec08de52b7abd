#include "client/service-process.h"

#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>

namespace quillon {

namespace {

// As the kernel shows it: the first 15 characters of the program's name.
constexpr const char* kProgram = "quillon-service";
constexpr const char* kLifeMarker = "/tmp/fw_update_ready_usb";

#ifdef SYS_pidfd_open
constexpr long kPidfdOpen = SYS_pidfd_open;
#else
constexpr long kPidfdOpen = 434;  // the same on all machines that came after it
#endif

/// @return whether the numbers in /proc are those of this process's PID namespace
bool procIsOurs()
{
    char target[32] = {};
    const ssize_t size = readlink("/proc/self", target, sizeof target - 1);
    return size > 0 && std::to_string(getpid()) == target;
}

/// @return whose the life marker is; nobody's where there is none
std::optional<uid_t> markersOwner()
{
    struct stat status = {};
    if (lstat(kLifeMarker, &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return status.st_uid;
}

/// The queues of a group are root's and not the service's, who is a member of the group. Everybody
/// may call a process as the service is called, and make a life marker where there is none: the
/// group keeps those away who may not use the queues, the marker the other members.
bool isServicesUser(uid_t user, const std::set<gid_t>& groups, const QueueOwner& queues)
{
    if (user == queues.user) {
        return true;
    }
    return queues.user == 0 && groups.count(queues.group) != 0 && markersOwner() == user;
}

/// @return whether the process has the service's name and user, and is in the PID namespace of
///         /proc itself, not in one below it: a device in a namespace has queues of its own
bool isService(const std::string& pid, const QueueOwner& queues)
{
    std::ifstream status("/proc/" + pid + "/status");
    bool isCalledSo = false;
    std::optional<uid_t> user;
    std::set<gid_t> groups;
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string key;
        std::string first;
        words >> key >> first;
        if (key == "Name:") {
            isCalledSo = first == kProgram;
        } else if (key == "Uid:") {
            uid_t effective = 0;
            if (words >> effective) {
                user = effective;
            }
        } else if (key == "Groups:") {
            words.str(line.substr(key.size()));
            words.clear();
            groups.insert(std::istream_iterator<gid_t>(words), {});
        } else if (key == "NSpid:" && words >> first) {
            return false;
        }
        if (!isCalledSo) {
            return false;
        }
    }
    return user && isServicesUser(*user, groups, queues);
}

bool ended(const UniqueFd& handle)
{
    pollfd file{handle.get(), POLLIN, 0};
    return poll(&file, 1, 0) == 1;
}

}  // namespace

void ServiceProcess::find(const QueueOwner& queues)
{
    if (!handles_.empty() || !procIsOurs()) {
        return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), &closedir);
    while (const dirent* entry = proc ? readdir(proc.get()) : nullptr) {
        const int pid = std::atoi(entry->d_name);
        if (pid <= 0 || !isService(entry->d_name, queues)) {
            continue;
        }
        UniqueFd handle(static_cast<int>(syscall(kPidfdOpen, pid, 0)));
        // It may have ended in between, and another process may have its number now.
        if (handle && !ended(handle) && isService(entry->d_name, queues)) {
            handles_.push_back(std::move(handle));
        }
    }
}

bool ServiceProcess::hasEnded() const
{
    return !handles_.empty() && std::all_of(handles_.begin(), handles_.end(), ended);
}

}  // namespace quillon
