#include "tools/quillonctl/modules/packages-lock.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/fd.h"
#include "src/support/paths.h"
#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/file-locks.h"

namespace quillon {

namespace {

Failure noLock(int error)
{
    const std::string remedy = error == EACCES ? "repeat the command as root"
                                               : "\"quillonctl doctor\" looks at that directory";
    return {kExitSystem, std::string("the packages cannot be locked: ") + paths::kMountedPackages +
                             ": " + std::strerror(error) + "; " + remedy};
}

}  // namespace

PackagesLock& PackagesLock::instance()
{
    static PackagesLock lock;
    return lock;
}

bool PackagesLock::take()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    static const int forks = pthread_atfork(nullptr, nullptr, leaveToParent);
    const int error = forks != 0 ? forks : tryToTake();
    if (error != 0 && error != EWOULDBLOCK) {
        throw noLock(error);
    }
    isTaken_ = error == 0;
    return isTaken_;
}

bool PackagesLock::has()
{
    if (!isTaken_) {
        return false;
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    const int file = file_;
    const bool isLocked = isOwnFile(file) && flock(file, LOCK_EX | LOCK_NB) == 0;
    return isLocked || tryToTake() == 0;
}

/// @return an error of errno; 0 for none
int PackagesLock::tryToTake()
{
    UniqueFd file(::open(paths::kMountedPackages, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!file) {
        return errno == ENOENT ? 0 : errno;
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 || fstat(file.get(), &directory_) != 0) {
        return errno;
    }
    process_ = getpid();
    file_ = file.release();
    return 0;
}

void PackagesLock::giveUp()
{
    isTaken_ = false;
    const int file = getpid() == process_ ? file_.exchange(-1) : -1;
    if (isOwnFile(file)) {
        flock(file, LOCK_UN);  // a process that was not forked by fork() may have it as well
        close(file);
    }
}

/// A module may have closed it, and its number may be somebody else's by now.
bool PackagesLock::isOwnFile(int file) const
{
    struct stat status = {};
    return fstat(file, &status) == 0 && status.st_dev == directory_.st_dev &&
           status.st_ino == directory_.st_ino;
}

/// In a forked process. What a module forks may live on for as long as it likes.
void PackagesLock::leaveToParent()
{
    PackagesLock& lock = instance();
    lock.isTaken_ = false;
    const int file = lock.file_.exchange(-1);
    if (lock.isOwnFile(file)) {
        close(file);
    }
}

SlotHolders PackagesLock::holders()
{
    struct stat directory = {};
    const bool isThere = stat(paths::kMountedPackages, &directory) == 0;
    const pid_t process = isThere ? flockHolder(directory).value_or(0) : 0;
    // One that has ended may have left its lock to somebody.
    const bool isAlive =
        process > 0 && access(("/proc/" + std::to_string(process)).c_str(), F_OK) == 0;
    SlotHolders holders;
    holders.arePackages = true;
    holders.alive.push_back(isAlive ? holderOf(process) : SlotHolder());
    if (isAlive && isStopped(process)) {
        holders.stopped = holders.alive;
    }
    return holders;
}

std::string phraseOfPackages(const SlotHolders& holders)
{
    if (holders.alive.front().process == 0) {
        return std::string(
                   "the packages are locked by a process that has ended or is not seen "
                   "here; root learns who has taken over its lock from: fuser -v ") +
               paths::kMountedPackages;
    }
    return "the packages are in use by " + describe(holders.alive) +
           (holders.stopped.empty() ? ", which checks them or updates from them"
                                    : ", which is stopped: let it go on or end it");
}

}  // namespace quillon
