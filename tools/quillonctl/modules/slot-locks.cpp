#include "tools/quillonctl/modules/slot-locks.h"

#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "tools/shared/services-user.h"

namespace quillon {

namespace {

/// Where the C library keeps the update semaphore (semName).
constexpr const char* kSemaphoreFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";

constexpr off_t kTurnstile = 0;
constexpr off_t kGate = 1;
constexpr off_t kHeld = 2;
constexpr off_t kNumbers = 2;  // process 0 is none
constexpr off_t kMostNumbers = 1L << 30;

constexpr std::chrono::milliseconds kPoll(5);
constexpr int kPollsForTheGate = 400;
constexpr int kPollsForOneName = 200;

struct flock lockOf(short type, off_t byte, off_t length)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = length;
    return lock;
}

std::string refusal(const std::string& fault)
{
    return std::string(kSemaphoreFile) + " " + fault +
           "; root can remove it while nothing is being updated";
}

std::string whyNotOpened(int error)
{
    struct stat status = {};
    if (error == ENOENT) {
        return "";
    }
    if (lstat(kSemaphoreFile, &status) != 0 || (error != EACCES && S_ISREG(status.st_mode))) {
        return std::strerror(error);
    }
    if (!S_ISREG(status.st_mode)) {
        return refusal("is no plain file");
    }
    const std::string owner = nameOfUser(status.st_uid);
    return "it belongs to " + owner + ", so only " +
           (status.st_uid == 0 ? owner : owner + " and root") + " can use it";
}

/// What is wrong with the semaphore's file; empty when nothing is.
std::string faultOf(const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) {
        return refusal("is no plain file");
    }
    if (status.st_nlink != 1) {
        return refusal("has a second name");
    }
    if (status.st_uid != 0 && status.st_uid != geteuid() &&
        (geteuid() != 0 || !isServicesUser(status.st_uid))) {
        return refusal("belongs to " + nameOfUser(status.st_uid));
    }
    return status.st_size == static_cast<off_t>(sizeof(sem_t)) ? "" : refusal("has the wrong size");
}

}  // namespace

std::unique_ptr<SlotLocks> SlotLocks::open(std::string& trouble)
{
    trouble.clear();
    const int file = ::open(kSemaphoreFile, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file == -1) {
        trouble = whyNotOpened(errno);
        return nullptr;
    }
    struct stat status = {};
    fstat(file, &status);
    // Who makes it gives it two names for a moment.
    for (int i = 0; i < kPollsForOneName && status.st_nlink == 2; ++i) {
        std::this_thread::sleep_for(kPoll);
        fstat(file, &status);
    }
    std::unique_ptr<SlotLocks> locks(new SlotLocks(file, status));
    trouble = faultOf(status);
    if (!trouble.empty()) {
        return nullptr;
    }
    locks->stopHolding();
    return locks;
}

void SlotLocks::giveUpFile()
{
    if (!isOwnFile()) {
        static_cast<void>(descriptor_.release());  // it may be somebody else's by now
    }
    descriptor_.reset();
}

bool SlotLocks::isOwnFile() const
{
    struct stat status = {};
    return fstat(descriptor_.get(), &status) == 0 && status.st_dev == file_.st_dev &&
           status.st_ino == file_.st_ino;
}

bool SlotLocks::set(short type, off_t byte)
{
    if (!isOwnFile()) {
        errno = EBADF;
        return false;
    }
    struct flock lock = lockOf(type, byte, 1);
    return fcntl(descriptor_.get(), F_OFD_SETLK, &lock) == 0;
}

SlotLocks::Gate SlotLocks::enterGate()
{
    const bool hasTurnstile = set(F_WRLCK, kTurnstile);
    const bool isInside = hasTurnstile && set(F_RDLCK, kGate);
    const int error = errno;
    if (hasTurnstile) {
        set(F_UNLCK, kTurnstile);
    }
    if (isInside) {
        return Gate::kInside;
    }
    errno = error;
    return error == EAGAIN || error == EACCES ? Gate::kClosed : Gate::kLost;
}

void SlotLocks::leaveGate()
{
    set(F_UNLCK, kGate);
}

bool SlotLocks::closeGate()
{
    bool hasTurnstile = false;
    for (int i = 0; i < kPollsForTheGate; ++i) {
        hasTurnstile = hasTurnstile || set(F_WRLCK, kTurnstile);
        if (hasTurnstile && set(F_WRLCK, kGate)) {
            return true;
        }
        std::this_thread::sleep_for(kPoll);
    }
    return false;
}

bool SlotLocks::startHolding()
{
    if (!set(F_WRLCK, kHeld)) {
        return false;
    }
    set(F_WRLCK, kNumbers + getpid());
    return true;
}

void SlotLocks::stopHolding()
{
    set(F_RDLCK, kNumbers + getpid());
    set(F_UNLCK, kHeld);
}

std::optional<struct flock> SlotLocks::lockInTheWay(short type, off_t byte, off_t length) const
{
    struct flock lock = lockOf(type, byte, length);
    if (fcntl(descriptor_.get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return std::nullopt;
    }
    return lock;
}

bool SlotLocks::onlyTakesPart(pid_t process) const
{
    const auto lock = lockInTheWay(F_WRLCK, kNumbers + process, 1);
    return lock && lock->l_type == F_RDLCK;
}

bool SlotLocks::isHeld() const
{
    return lockInTheWay(F_RDLCK, kHeld, 1).has_value();
}

pid_t SlotLocks::holder() const
{
    const auto lock = lockInTheWay(F_RDLCK, kNumbers + 1, kMostNumbers - 1);
    return lock ? static_cast<pid_t>(lock->l_start - kNumbers) : 0;
}

}  // namespace quillon
