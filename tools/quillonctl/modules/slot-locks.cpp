#include "slot-locks.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "semaphore-file.h"

namespace quillon {

namespace {

constexpr off_t kTurnstile = 0;
constexpr off_t kGate = 1;
constexpr off_t kFirstProcess = 2;  // process 0 is none

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
    locks->mayHold(false);
    return locks;
}

bool SlotLocks::set(short type, off_t byte)
{
    struct flock lock = lockOf(type, byte, 1);
    return fcntl(m_descriptor.get(), F_OFD_SETLK, &lock) == 0;
}

bool SlotLocks::enterGate()
{
    if (!set(F_WRLCK, kTurnstile)) {
        return false;
    }
    const bool isInside = set(F_RDLCK, kGate);
    set(F_UNLCK, kTurnstile);
    return isInside;
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

void SlotLocks::mayHold(bool may)
{
    set(may ? F_WRLCK : F_RDLCK, kFirstProcess + getpid());
}

SlotLocks::Part SlotLocks::partOf(pid_t process) const
{
    struct flock lock = lockOf(F_WRLCK, kFirstProcess + process, 1);
    if (fcntl(m_descriptor.get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return Part::kNone;
    }
    return lock.l_type == F_WRLCK ? Part::kMayHold : Part::kTakesPart;
}

pid_t SlotLocks::holder() const
{
    struct flock lock = lockOf(F_RDLCK, kFirstProcess, 0);
    if (fcntl(m_descriptor.get(), F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return 0;
    }
    return static_cast<pid_t>(lock.l_start - kFirstProcess);
}

}  // namespace quillon
