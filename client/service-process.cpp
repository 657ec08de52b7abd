#include "service-process.h"

#include <dirent.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace quillon {

namespace {

// As the kernel shows it: the first 15 characters of the program's name.
constexpr const char* kProgram = "quillon-service";

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

/// @return whether the process has the service's name and user, and is in the PID namespace of
///         /proc itself, not in one below it: a device in a namespace has queues of its own
bool isService(const std::string& pid, uid_t user)
{
    std::ifstream status("/proc/" + pid + "/status");
    bool matches = false;
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string key;
        std::string first;
        std::string second;
        words >> key >> first >> second;
        if (key == "Name:") {
            matches = first == kProgram;
        } else if (key == "Uid:") {
            matches = matches && second == std::to_string(user);  // the effective one
        } else if (key == "NSpid:") {
            matches = matches && second.empty();
        }
        if (!matches) {
            return false;
        }
    }
    return matches;
}

bool ended(int handle)
{
    pollfd file{handle, POLLIN, 0};
    return poll(&file, 1, 0) == 1;
}

}  // namespace

void ServiceProcess::find(uid_t user)
{
    if (!m_handles.empty() || !procIsOurs()) {
        return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), &closedir);
    while (const dirent* entry = proc ? readdir(proc.get()) : nullptr) {
        const int pid = std::atoi(entry->d_name);
        if (pid <= 0 || !isService(entry->d_name, user)) {
            continue;
        }
        const int handle = static_cast<int>(syscall(kPidfdOpen, pid, 0));
        if (handle == -1) {
            continue;
        }
        // It may have ended in between, and another process may have its number now.
        if (ended(handle) || !isService(entry->d_name, user)) {
            close(handle);
            continue;
        }
        m_handles.push_back(handle);
    }
}

void ServiceProcess::forget()
{
    for (const int handle : m_handles) {
        close(handle);
    }
    m_handles.clear();
}

bool ServiceProcess::hasEnded() const
{
    return !m_handles.empty() && std::all_of(m_handles.begin(), m_handles.end(), ended);
}

}  // namespace quillon
