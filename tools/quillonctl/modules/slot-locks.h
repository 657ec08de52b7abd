/// The record locks by which control layers tell each other what they do with the update semaphore.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "base/fd.h"

namespace quillon {

/// The locks lie on the semaphore's own file, and end with the process however it ends. A semaphore
/// does not tell who has taken it; these do, as far as this program is concerned:
///
/// - One byte is locked for writing by who has the semaphore. Nobody goes on without that lock.
/// - Each process has a byte of its own, by its number. It is locked for reading by one that takes
///   part, and for writing by who has the semaphore, to tell its number. Processes of several
///   containers may have the same one, so this lock is not always to be had.
/// - The gate is locked for reading by who waits for the semaphore, a moment at a time, and for
///   writing by who releases it: meanwhile nobody takes it unnoticed. Who wants to close it takes
///   the turnstile first, so that no more come in.
///
/// They are locks of the open file, since the others vanish whenever the process closes any
/// descriptor of that file, which sem_open does.
class SlotLocks
{
public:
    /// Opens the semaphore's file and takes part. A file that a stranger could have put there, or
    /// could shorten, is refused: it belongs to root, to this user or, for root, to the service's.
    /// @param[out] trouble  a phrase with the remedy on failure; empty when there is no semaphore
    /// @return null on failure
    static std::unique_ptr<SlotLocks> open(std::string& trouble);

    /// The semaphore's file.
    const struct stat& file() const { return file_; }

    enum class Gate {
        kInside,
        kClosed,  ///< somebody is closing it
        kLost     ///< there can be no locks, errno says why: a module may have closed their file
    };
    Gate enterGate();
    void leaveGate();
    /// Waits for those inside, each of which leaves soon.
    /// @return false when somebody stays inside
    bool closeGate();

    /// To be called inside the gate with the semaphore taken.
    /// @return false when another process is not done with it; then it must be given back
    bool startHolding();
    /// Safe in a signal handler.
    void stopHolding();
    /// Whether another process takes part, and does not have the semaphore.
    bool onlyTakesPart(pid_t process) const;
    /// Whether another process has the semaphore.
    bool isHeld() const;
    /// Its number; 0 when it is not known.
    pid_t holder() const;

    /// Closes the file, unless somebody else has done so. There are no locks afterwards.
    void giveUpFile();

    ~SlotLocks() { giveUpFile(); }
    SlotLocks(const SlotLocks&) = delete;
    SlotLocks& operator=(const SlotLocks&) = delete;

private:
    SlotLocks(int file, const struct stat& status) : descriptor_(file), file_(status) {}
    bool isOwnFile() const;
    bool set(short type, off_t byte);
    std::optional<struct flock> lockInTheWay(short type, off_t byte, off_t length) const;

    UniqueFd descriptor_;
    struct stat file_;
};

}  // namespace quillon
