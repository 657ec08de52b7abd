#include "slot-locks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "semaphore-file.h"

namespace quillon {

namespace {

constexpr off_t kTurnstile = 0;
constexpr off_t kGate = 1;
constexpr off_t kHeld = 2;
constexpr off_t kNumbers = 2;  // process 0 is none

constexpr std::chrono::milliseconds kPoll(5);
constexpr int kPollsForTheGate = 400;

struct flock lockOf(short type, off_t byte, off_t length)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = length;
    return lock;
}

}  // namespace

std::unique_ptr<SlotLocks> SlotLocks::open()
{
    const int file = ::open(kSemaphoreFile, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (file == -1) {
        return nullptr;
    }
    struct stat status = {};
    fstat(file, &status);
    std::unique_ptr<SlotLocks> locks(new SlotLocks(file, status));
    locks->stopHolding();
    return locks;
}

SlotLocks::~SlotLocks()
{
    if (!isOwnFile()) {
        static_cast<void>(m_descriptor.release());  // it may be somebody else's by now
    }
}

bool SlotLocks::isOwnFile() const
{
    struct stat status = {};
    return fstat(m_descriptor.get(), &status) == 0 && status.st_dev == m_file.st_dev &&
           status.st_ino == m_file.st_ino;
}

bool SlotLocks::set(short type, off_t byte)
{
    if (!isOwnFile()) {
        errno = EBADF;
        return false;
    }
    struct flock lock = lockOf(type, byte, 1);
    return fcntl(m_descriptor.get(), F_OFD_SETLK, &lock) == 0;
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

SlotLocks::Part SlotLocks::partOf(pid_t process) const
{
    struct flock lock = lockOf(F_WRLCK, kNumbers + process, 1);
    if (fcntl(m_descriptor.get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return Part::kNone;
    }
    return lock.l_type == F_WRLCK ? Part::kMayHold : Part::kTakesPart;
}

bool SlotLocks::isHeld() const
{
    struct flock lock = lockOf(F_RDLCK, kHeld, 1);
    return fcntl(m_descriptor.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

pid_t SlotLocks::holder() const
{
    struct flock lock = lockOf(F_RDLCK, kNumbers + 1, 0);
    if (fcntl(m_descriptor.get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return 0;
    }
    return static_cast<pid_t>(lock.l_start - kNumbers);
}

}  // namespace quillon
