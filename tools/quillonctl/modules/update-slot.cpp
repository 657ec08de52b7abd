#include "tools/quillonctl/modules/update-slot.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <thread>
#include <utility>

#include "src/fw-update-common.h"
#include "tools/quillonctl/modules/interruption.h"
#include "tools/quillonctl/modules/packages-lock.h"

extern "C" {
int __real_sem_wait(sem_t* semaphore);
int __real_sem_post(sem_t* semaphore);

__attribute__((used)) int __wrap_sem_wait(sem_t* semaphore)
{
    quillon::UpdateSlot& slot = quillon::UpdateSlot::instance();
    if (!slot.isOwn(semaphore)) {
        return __real_sem_wait(semaphore);
    }
    slot.acquire();
    return 0;
}

__attribute__((used)) int __wrap_sem_post(sem_t* semaphore)
{
    quillon::UpdateSlot& slot = quillon::UpdateSlot::instance();
    if (!slot.isOwn(semaphore)) {
        return __real_sem_post(semaphore);
    }
    slot.post();
    return 0;
}
}

namespace quillon {

namespace {

using std::chrono::milliseconds;

/// So long an update waits at a time before it looks up.
constexpr milliseconds kSlice(200);
constexpr milliseconds kShortWait(2);
/// Waiting is not worth a word before.
constexpr milliseconds kUsualWait(300);
constexpr milliseconds kBetweenLooks(1000);

using UniqueSemaphore = std::unique_ptr<sem_t, ReleaseWith<&sem_close>>;

timespec after(milliseconds time)
{
    timespec moment = {};
    clock_gettime(CLOCK_MONOTONIC, &moment);
    const std::int64_t nanoseconds = moment.tv_nsec + time.count() * 1'000'000;
    moment.tv_sec += static_cast<time_t>(nanoseconds / 1'000'000'000);
    moment.tv_nsec = static_cast<long>(nanoseconds % 1'000'000'000);
    return moment;
}

bool isSame(const SlotHolders& one, const SlotHolders& other)
{
    return one.isComplete == other.isComplete && one.arePackages == other.arePackages &&
           describe(one.alive) == describe(other.alive) &&
           describe(one.stopped) == describe(other.stopped);
}

Failure noSemaphore(const std::string& why)
{
    return {kExitSystem, std::string("the update semaphore ") + semName + " cannot be had: " + why};
}

Failure staysLocked(ExitCode code, const std::string& why)
{
    return {code, "the update semaphore stays locked: " + why};
}

/// Throws Failure when there are any.
void checkNobodyHolds(const std::vector<SlotHolder>& holders)
{
    if (!holders.empty()) {
        throw staysLocked(kExitAlreadyUpdating, "it may be held by " + describe(holders));
    }
}

}  // namespace

UpdateSlot& UpdateSlot::instance()
{
    static UpdateSlot slot;
    return slot;
}

void UpdateSlot::open()
{
    process_ = getpid();
    std::string trouble;
    locks_ = SlotLocks::open(trouble);
    if (!locks_ && trouble.empty() && FWUpdateCommon::getInstance().create_semaphore() != nullptr) {
        locks_ = SlotLocks::open(trouble);
    }
    // Taking part comes before having the semaphore open: who has it open without that may hold it.
    semaphore_ = locks_ ? FWUpdateCommon::getInstance().create_semaphore() : nullptr;
    if (semaphore_ == nullptr) {
        throw noSemaphore(trouble.empty() ? std::strerror(errno) : trouble);
    }
}

Failure UpdateSlot::interruption() const
{
    if (!trouble_.empty()) {
        return {kExitSystem, trouble_};
    }
    return {kExitInterrupted, updatesBegun_ == 0 ? "interrupted; nothing was updated"
                                                 : "interrupted; not every update was begun"};
}

/// A module that closes all files closes that of the locks as well; the semaphore itself stays.
SlotLocks::Gate UpdateSlot::enterGate()
{
    SlotLocks::Gate gate = locks_->enterGate();
    if (gate != SlotLocks::Gate::kLost) {
        return gate;
    }
    std::string trouble;
    // The file gets the same number when it is opened again, and must then not be taken for this.
    locks_->giveUpFile();
    if (std::unique_ptr<SlotLocks> locks = SlotLocks::open(trouble)) {
        locks_ = std::move(locks);
        gate = locks_->enterGate();
    }
    if (gate == SlotLocks::Gate::kLost) {
        trouble_ = "the update semaphore's file cannot be locked any more: " +
                   (trouble.empty() ? std::strerror(errno) : trouble) +
                   "; a module may have closed it";
        throw UpdateInterrupted();
    }
    return gate;
}

/// What it has got it has said so before anybody else can come to the conclusion that nobody has
/// it. Who had it before may still have to say that it has posted it.
bool UpdateSlot::tryFor(milliseconds time)
{
    if (enterGate() == SlotLocks::Gate::kClosed) {
        std::this_thread::sleep_for(kShortWait);
        return false;
    }
    mayBeginUpdating();
    const timespec deadline = after(time);
    const bool isAcquired = sem_clockwait(semaphore_, CLOCK_MONOTONIC, &deadline) == 0;
    held_ = isAcquired && locks_->startHolding();
    if (isAcquired && !held_) {
        __real_sem_post(semaphore_);
    }
    locks_->leaveGate();
    if (held_) {
        return true;
    }
    didNotBeginUpdating();
    if (isAcquired) {
        std::this_thread::sleep_for(kShortWait);
    }
    return false;
}

/// @param attempt  waits for kSlice at most; returns whether the waiting is over
/// @param look     returns who has what is waited for
template <typename Attempt, typename Look>
void UpdateSlot::waitFor(Attempt attempt, Look look)
{
    std::optional<SlotHolders> told;
    bool wasUnknown = false;
    Clock::time_point nextLook = Clock::now() + kUsualWait;
    while (!isInterrupted() && !attempt()) {
        if (!onWaiting_ || Clock::now() < nextLook) {
            continue;
        }
        const SlotHolders holders = look();
        // Who had it may have ended since the attempt, so nobody is missed before the next one.
        const bool isUnknown = holders.alive.empty() || holders.alive.front().process == 0;
        if (std::exchange(wasUnknown, isUnknown) < isUnknown) {
            continue;
        }
        if (!told || !isSame(*told, holders)) {
            told = holders;
            onWaiting_(holders);
        }
        nextLook = Clock::now() + kBetweenLooks;
    }
}

void UpdateSlot::awaitPackages()
{
    PackagesLock& packages = PackagesLock::instance();
    waitFor(
        [&] {
            int value = 1;
            needsPackages_ = needsPackages_ || packages.take();
            const bool isFree =
                needsPackages_ && (sem_getvalue(semaphore_, &value) != 0 || value > 0);
            if (!isFree) {
                std::this_thread::sleep_for(kSlice);
            }
            return isFree;
        },
        [&] { return needsPackages_ ? findSlotHolders(*locks_) : packages.holders(); });
    if (isInterrupted()) {
        throw UpdateInterrupted();
    }
}

void UpdateSlot::acquire()
{
    PackagesLock& packages = PackagesLock::instance();
    if (needsPackages_ && !packages.has()) {
        trouble_ = phraseOfPackages(packages.holders()) +
                   "; a module has closed the file by which this program kept them";
        throw UpdateInterrupted();
    }
    waitFor([this] { return tryFor(kSlice); }, [this] { return findSlotHolders(*locks_); });
    if (isInterrupted() || !beginUpdating()) {
        post();
        didNotBeginUpdating();
        throw UpdateInterrupted();
    }
    ++updatesBegun_;
}

/// The locks do not end with this process when a module has forked another one, so they are given
/// up as well; after the post, since a semaphore without them counts as left behind.
bool UpdateSlot::giveBack()
{
    if (getpid() != process_ || !held_.exchange(false)) {
        return false;
    }
    const bool isPosted = __real_sem_post(semaphore_) == 0;
    locks_->stopHolding();
    return isPosted;
}

void UpdateSlot::post()
{
    static_cast<void>(giveBack());
    // The registry posts it while it handles an exception only where it could not start a thread.
    if (std::current_exception() != nullptr) {
        updateDidNotStart();
        return;
    }
    endUpdating();
}

std::string UpdateSlot::updater(std::string& trouble)
{
    const std::unique_ptr<SlotLocks> locks = SlotLocks::open(trouble);
    if (!trouble.empty()) {
        trouble = noSemaphore(trouble).text;
    }
    const UniqueSemaphore semaphore(locks ? sem_open(semName, 0) : SEM_FAILED);
    int value = 1;
    const bool isTaken =
        semaphore.get() != SEM_FAILED && sem_getvalue(semaphore.get(), &value) == 0 && value <= 0;
    return isTaken ? describe(findSlotHolders(*locks).alive) : "";
}

bool UpdateSlot::release()
{
    std::string trouble;
    const std::unique_ptr<SlotLocks> locks = SlotLocks::open(trouble);
    if (!trouble.empty()) {
        throw noSemaphore(trouble);
    }
    if (!locks) {
        return false;
    }
    const UniqueSemaphore semaphore(sem_open(semName, 0));
    if (semaphore.get() == SEM_FAILED) {
        throw noSemaphore(std::strerror(errno));
    }
    int value = 0;
    if (sem_getvalue(semaphore.get(), &value) == 0 && value > 0) {
        if (locks->isHeld()) {
            checkNobodyHolds(findSlotHolders(*locks).alive);
        }
        return false;
    }
    const bool isClosed = locks->closeGate();
    const SlotHolders holders = findSlotHolders(*locks);
    checkNobodyHolds(holders.alive);
    if (!isClosed) {
        std::vector<SlotHolder> stuck = holders.stopped.empty() ? holders.waiting : holders.stopped;
        if (stuck.empty()) {
            stuck.push_back({});  // of another container
        }
        throw staysLocked(kExitAlreadyUpdating,
                          "a program that waits for it does not react, let "
                          "it go on or end it first: " +
                              describe(stuck));
    }
    if (!holders.isComplete) {
        throw staysLocked(kExitSystem,
                          "whether somebody holds it cannot be told by this user; "
                          "root can release it");
    }
    // Somebody may have released it before the gate was closed.
    if (sem_getvalue(semaphore.get(), &value) != 0 || value > 0) {
        return false;
    }
    __real_sem_post(semaphore.get());
    return true;
}

}  // namespace quillon
