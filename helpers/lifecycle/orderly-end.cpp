#include "helpers/lifecycle/orderly-end.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <system_error>

#include "base/fd.h"
#include "base/handles.h"
#include "base/regular-file.h"
#include "base/task-start.h"
#include "helpers/lifecycle/own-queues.h"
#include "helpers/lifecycle/service-manager.h"
#include "helpers/lifecycle/taken-name.h"
#include "helpers/lifecycle/unit-failure.h"
#include "src/support/paths.h"

namespace quillon::unit {

namespace {

/// Says it if there is memory.
void sayOrNot(Priority priority, const char* text)
{
    try {
        say(priority, text);
    } catch (const std::exception&) {
        // What was to be said is lost; the waiting goes on.
    }
}

constexpr int kPauseMilliseconds = 500;
constexpr std::size_t kThreadsWithoutUpdate = 2;  // the initial one and the control task
constexpr std::size_t kLargestRecord = 4U << 20U;
constexpr int kFullLooks = 4;  // who reads replies at all does so within two seconds

void takeMarkerAway(const char* marker)
{
    try {
        putDeadLink(marker, "/nonexistent/quillon-is-stopping", 0, 0);
    } catch (const std::exception& error) {
        static_cast<void>(std::remove(marker));
        sayOrNot(Priority::kError, error.what());
    }
}

void notifyWatchdog()
{
    tellServiceManager("WATCHDOG=1");
}

using Threads = std::set<std::string>;

/// Throws std::bad_alloc. Does without std::filesystem, which ends the program where memory is
/// short.
Threads threadsOf(pid_t process)
{
    Threads threads;
    const std::string path = "/proc/" + std::to_string(process) + "/task";
    const std::unique_ptr<DIR, ReleaseWith<&closedir>> directory(opendir(path.c_str()));
    if (!directory && errno == ENOMEM) {
        throw std::bad_alloc();
    }
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        if (entry->d_name[0] != '.') {
            threads.insert(entry->d_name);
        }
    }
    return threads;
}

/// @return in seconds since boot; infinity when the service's record does not tell
double servingSince()
{
    // The service's user may have put anything there.
    const std::optional<std::string> record = readRegularFile(
        paths::kRunRecords + std::string("start.jsonl"), kLargestRecord, O_NOFOLLOW);
    std::istringstream lines(record.value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t clock = line.find("\"clock\":");
        if (line.find("\"event\":\"serving\"") != std::string::npos && clock != std::string::npos) {
            return std::strtod(line.c_str() + clock + 8, nullptr);
        }
    }
    return std::numeric_limits<double>::infinity();
}

/// The threads that a service has all its life, and others that were there when it began to serve.
/// Threads of an estimate or an update start later. Without that time all threads count: to spare
/// a service that hangs does less harm than to kill one that updates.
Threads lastingThreadsOf(pid_t process)
{
    const double serving = servingSince();
    Threads lasting;
    for (const std::string& thread : threadsOf(process)) {
        if (startOfTask("/proc/" + std::to_string(process) + "/task/" + thread) <= serving) {
            lasting.insert(thread);
        }
    }
    return lasting;
}

/// Looks after the service while it ends.
class Attendance
{
public:
    Attendance(pid_t process, std::chrono::milliseconds patience)
        : process_(process), patience_(patience)
    {
        try {
            lasting_ = lastingThreadsOf(process);
        } catch (const std::exception&) {
            isEnding_ = true;  // as above: rather is a service that hangs spared
        }
    }

    /// To be called every kPauseMilliseconds.
    void look()
    {
        try {
            lookAtThreads();
        } catch (const std::exception&) {
            notifyWatchdog();  // the next look may have memory
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    void lookAtThreads()
    {
        fullLooks_ = isReplyQueueFull() ? fullLooks_ + 1 : 0;
        if (fullLooks_ >= kFullLooks) {
            emptyReplyQueue();
            sayOrNot(Priority::kWarning,
                     "threw away replies that nobody reads, so the service can end");
        }
        const auto now = Clock::now();
        const Threads threads = threadsOf(process_);
        isEnding_ = isEnding_ || hasBegunToEnd(threads);
        // A module's update may take as long as it takes. Without one a service has nothing to wait
        // for; one whose descriptors a module has closed waits all the same, for a stop command
        // that cannot come.
        if (threads != threadsSeen_ || threads.size() > kThreadsWithoutUpdate) {
            threadsSeen_ = threads;
            lastProgress_ = now;
        }
        const bool isStuck = now - lastProgress_ > patience_;
        if (isEnding_ && isStuck && !isGivenUp_) {
            sayOrNot(Priority::kWarning,
                     "the service does not end although no update runs; left to the watchdog");
        }
        isGivenUp_ = isEnding_ && isStuck;
        if (isEnding_ && !isStuck) {
            notifyWatchdog();
        }
    }

    /// The service no longer tells the watchdog that it is alive once it has seen that the marker
    /// is gone. A lasting thread has ended then, which tells it from a service that hangs.
    bool hasBegunToEnd(const Threads& now) const
    {
        return !std::includes(now.begin(), now.end(), lasting_.begin(), lasting_.end());
    }

    pid_t process_;
    std::chrono::milliseconds patience_;
    Threads lasting_;
    Threads threadsSeen_;
    Clock::time_point lastProgress_;
    int fullLooks_ = 0;
    bool isEnding_ = false;
    bool isGivenUp_ = false;
};

}  // namespace

void endAndWait(const char* lifeMarker, pid_t process, std::chrono::milliseconds patience)
{
    if (process <= 0) {
        return;
    }
    Attendance attendance(process, patience);
    // By number: older C libraries have no function for it.
    const UniqueFd handle(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    const bool hasEnded = !handle && errno == ESRCH;
    takeMarkerAway(lifeMarker);
    if (hasEnded) {
        return;
    }
    static_cast<void>(kill(process, SIGCONT));  // a stopped process does not end
    for (;;) {
        pollfd ended = {handle.get(), POLLIN, 0};
        const int events = poll(&ended, 1, kPauseMilliseconds);
        const bool isGone = !handle && kill(process, 0) != 0 && errno == ESRCH;
        if (events > 0 || isGone) {
            return;
        }
        attendance.look();
    }
}

}  // namespace quillon::unit
