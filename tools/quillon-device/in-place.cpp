#include "tools/quillon-device/in-place.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "base/fd.h"
#include "tools/quillon-device/device-paths.h"
#include "tools/quillon-device/left-overs.h"
#include "tools/quillon-device/mounts.h"
#include "tools/quillon-device/setup-error.h"

namespace fs = std::filesystem;

namespace quillon::device {

namespace {

/// First line of the record, which is there as long as a device is in use; then the directories
/// that were made for it, one a line. A record that is still there tells of a device that was
/// killed.
constexpr const char* kInUse = "in use";

/// What somebody has put where the lock belongs stays as it is.
[[noreturn]] void refuseLock(const std::string& path, const std::string& why)
{
    struct stat status = {};
    const bool isThere = ::lstat(path.c_str(), &status) == 0;
    throw SetupError("the lock " + path + " cannot be used: " + why +
                     (isThere ? "; if no device runs in place, remove it as root or as user " +
                                    std::to_string(status.st_uid)
                              : ""));
}

/// What keeps a file from being the lock of this user; empty when nothing does.
std::string faultOf(const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) {
        return "it is no regular file";
    }
    if (status.st_uid != ::geteuid()) {
        return "it belongs to somebody else";
    }
    return status.st_nlink == 1 ? "" : "it is another name of a file that has more than one";
}

/// Holds the lock that lets one device at a time run in place. The file is its record as well.
class InPlaceLock
{
public:
    explicit InPlaceLock(const sigset_t& signalMask)
    {
        constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        file_ = UniqueFd(::open(path_.c_str(), kFlags, 0600));
        struct stat status = {};
        if (!file_ || ::fstat(file_.get(), &status) != 0) {
            refuseLock(path_, errno == ELOOP ? "it is a symbolic link" : std::strerror(errno));
        }
        if (const std::string fault = faultOf(status); !fault.empty()) {
            refuseLock(path_, fault);
        }
        // While we wait, a signal ends us as it would end anybody.
        sigset_t blocked;
        ::sigprocmask(SIG_SETMASK, &signalMask, &blocked);
        const int result = ::flock(file_.get(), LOCK_EX);
        ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
        require(result == 0, path_);
    }

    /// Lines of the record; empty when the last device ended properly.
    std::vector<std::string> record() const
    {
        std::vector<std::string> lines;
        std::ifstream file(path_);
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    void write(const std::vector<std::string>& lines)
    {
        std::string text;
        for (const std::string& line : lines) {
            text += line + "\n";
        }
        require(::ftruncate(file_.get(), 0) == 0 &&
                    ::pwrite(file_.get(), text.data(), text.size(), 0) ==
                        static_cast<ssize_t>(text.size()),
                path_);
    }

private:
    std::string path_ = fs::is_directory("/run/lock") ? "/run/lock/quillon-device.lock"
                                                      : "/tmp/quillon-device.lock";
    UniqueFd file_;
};

/// A stick that is still mounted must not be emptied along with its directory.
void unmountLeftovers()
{
    const std::vector<std::string> directories = serviceDirectories();
    for (const std::string& point : mountPoints()) {
        if (!isWithinAny(fs::path(point).parent_path(), directories)) {
            continue;
        }
        while (::umount2(point.c_str(), MNT_DETACH) == 0) {
            // a place may bear several, one on top of the other
        }
    }
}

/// Empties the service's paths and removes the directories that were made for the device.
void clean(const std::vector<std::string>& madeDirectories)
{
    unmountLeftovers();
    std::error_code ignored;
    for (const std::string& directory : serviceDirectories()) {
        for (const fs::directory_entry& entry : fs::directory_iterator(directory, ignored)) {
            fs::remove_all(entry.path(), ignored);
        }
    }
    for (const std::string& file : serviceFiles()) {
        fs::remove(file, ignored);
    }
    for (const std::string& directory : madeDirectories) {
        // Whatever a record says, nothing else and no top directory is ever removed.
        const bool isTop = std::count(directory.begin(), directory.end(), '/') < 2;
        if (!isTop && isOnTheWay(directory, serviceDirectories())) {
            fs::remove_all(directory, ignored);
        }
    }
    removeQueues();
}

/// Whether there is anything but directories in a directory, however deep.
bool holdsFiles(const std::string& directory)
{
    std::error_code ignored;
    const fs::recursive_directory_iterator entries(
        directory, fs::directory_options::skip_permission_denied, ignored);
    return std::any_of(begin(entries), end(entries),
                       [](const fs::directory_entry& entry) { return !entry.is_directory(); });
}

void refuseRealContent()
{
    std::error_code ignored;
    for (const std::string& directory : serviceDirectories()) {
        if (holdsFiles(directory)) {
            throw SetupError(directory + " holds real content; nothing runs in place over it");
        }
    }
    for (const std::string& file : serviceFiles()) {
        if (fs::exists(fs::symlink_status(file, ignored))) {
            throw SetupError(file + " exists; nothing runs in place over it");
        }
    }
}

/// The outermost missing directory on the way to each directory of the service.
std::vector<std::string> directoriesToMake()
{
    std::vector<std::string> missing;
    for (const std::string& directory : serviceDirectories()) {
        fs::path outermost = directory;
        if (fs::exists(outermost)) {
            continue;
        }
        while (!fs::exists(outermost.parent_path())) {
            outermost = outermost.parent_path();
        }
        if (std::find(missing.begin(), missing.end(), outermost.string()) == missing.end()) {
            missing.push_back(outermost.string());
        }
    }
    return missing;
}

void makeDirectories()
{
    for (const std::string& directory : serviceDirectories()) {
        std::error_code error;
        fs::create_directories(directory, error);
        if (error) {
            throw SetupError(directory + ": " + error.message());
        }
    }
}

}  // namespace

std::string disposableContainerMark()
{
    for (const char* file : {"/.dockerenv", "/run/.containerenv"}) {
        if (::access(file, F_OK) == 0) {
            return file;
        }
    }
    const char* container = std::getenv("container");
    return container != nullptr && *container != '\0' ? "$container" : "";
}

std::string obstacleInPlace()
{
    const char* outer = std::getenv("QUILLON_DEVICE");
    if (outer != nullptr && std::string(outer) == "in-place") {
        return "this already is a device in place, and there can be no second one inside";
    }
    std::error_code ignored;
    if (fs::read_symlink("/proc/self", ignored) != std::to_string(::getpid())) {
        return "/proc does not show the processes of this place";
    }
    for (const std::string& directory : serviceDirectories()) {
        // One question a directory: a device that is just ending may take them away meanwhile.
        fs::path existing = directory;
        while (::access(existing.c_str(), W_OK) != 0 && errno == ENOENT) {
            existing = existing.parent_path();
        }
        if (::access(existing.c_str(), W_OK) != 0 && errno != ENOENT) {
            return "no right to write in " + existing.string();
        }
    }
    return "";
}

int runInPlace(const Command& command)
{
    const std::string obstacle = obstacleInPlace();
    if (!obstacle.empty()) {
        throw SetupError(obstacle);
    }
    InPlaceLock lock(command.signalMask);
    const std::vector<std::string> record = lock.record();
    if (!record.empty()) {
        killForgottenProcesses();
        clean(record);
    }
    refuseRealContent();
    removeQueues();

    const std::vector<std::string> made = directoriesToMake();
    std::vector<std::string> lines = made;
    lines.insert(lines.begin(), kInUse);
    lock.write(lines);
    makeDirectories();

    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const int status = runAsChild(command, "in-place", true);
    killDescendants();
    clean(made);
    lock.write({});
    return status;
}

}  // namespace quillon::device
