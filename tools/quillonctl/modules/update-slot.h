/// The update semaphore as this program uses it.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "tools/quillonctl/exit-codes.h"
#include "tools/quillonctl/modules/slot-holders.h"
#include "tools/quillonctl/modules/slot-locks.h"

namespace quillon {

/// Raised out of the registry when the program was asked to end before an update began, or when no
/// update can begin any more, see UpdateSlot::trouble().
struct UpdateInterrupted
{
};

/// The registry waits for the semaphore before each update, and posts it afterwards; the program is
/// linked so that these two calls arrive here. So the waiting can be interrupted and explained, and
/// an end that nobody foresaw can give the semaphore back.
class UpdateSlot
{
public:
    using Clock = std::chrono::steady_clock;
    using OnWaiting = std::function<void(const SlotHolders&)>;

    static UpdateSlot& instance();

    /// Opens the semaphore, and makes it where there is none. Throws Failure.
    void open();

    /// @param onWaiting  called on the waiting thread when an update has to wait, and again when
    ///                   there is something new to say; empty for nobody
    void explainTo(OnWaiting onWaiting) { onWaiting_ = std::move(onWaiting); }

    /// How many updates have begun in this process.
    int updatesBegun() const { return updatesBegun_; }

    /// Why no update can begin any more; empty while they can.
    const std::string& trouble() const { return trouble_; }

    /// What a verb ends with that was asked to end, or can begin no more updates.
    Failure interruption() const;

    /// Posts the semaphore if this process holds it. Safe in a signal handler.
    /// @return whether it did
    bool giveBack();

    /// Who updates at this moment, for people: "process 12 (quillonctl modules update tuner)".
    /// @param[out] trouble  why this user cannot tell, for people; empty when it can
    /// @return empty when nobody alive does, or this user cannot tell
    static std::string updater(std::string& trouble);

    /// As updater(), but for others than this process, and without a reason.
    std::string otherUpdater() const
    {
        std::string trouble;
        return held_ ? std::string() : updater(trouble);
    }

    /// Waits, as before an update, until this process has the PackagesLock and no program has the
    /// semaphore. Throws UpdateInterrupted, and Failure when the packages cannot be locked.
    void awaitPackages();

    /// Releases a semaphore whose holder is no more.
    /// @return false when nobody has it. Throws Failure when it stays locked.
    static bool release();

    /// @name What the registry calls
    /// @{
    bool isOwn(const sem_t* semaphore) const { return semaphore == semaphore_; }
    /// Raises UpdateInterrupted.
    void acquire();
    void post();
    /// @}

private:
    SlotLocks::Gate enterGate();
    bool tryFor(std::chrono::milliseconds time);
    template <typename Attempt, typename Look>
    void waitFor(Attempt attempt, Look look);

    std::unique_ptr<SlotLocks> locks_;
    std::atomic<sem_t*> semaphore_{nullptr};  // every sem_wait of the program looks at it
    pid_t process_ = 0;
    std::atomic<bool> held_{false};
    std::atomic<int> updatesBegun_{0};
    bool needsPackages_ = false;  // no update may begin without their lock
    OnWaiting onWaiting_;
    std::string trouble_;
};

}  // namespace quillon
