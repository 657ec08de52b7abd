/// The record locks by which control layers tell each other what they do with the update semaphore.
#ifndef QUILLON_QUILLONCTL_SLOT_LOCKS_H
#define QUILLON_QUILLONCTL_SLOT_LOCKS_H

#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string>

#include "support/unique-handles.h"

namespace quillon {

/// The locks lie on the semaphore's own file, and end with the process however it ends. A semaphore
/// does not tell who has taken it; these do, as far as this program is concerned:
///
/// - Each process has a byte of its own. It is locked for reading by one that takes part, and for
///   writing by one that may hold the semaphore.
/// - The gate is locked for reading by who waits for the semaphore, a moment at a time, and for
///   writing by who releases it: meanwhile nobody takes it unnoticed. Who wants to close it takes
///   the turnstile first, so that no more come in.
///
/// They are locks of the open file, since the others vanish whenever the process closes any
/// descriptor of that file, which sem_open does.
class SlotLocks
{
public:
    enum class Part { kNone, kTakesPart, kMayHold };

    /// Opens the semaphore's file and takes part.
    /// @return null with errno set when it cannot be opened; ENOENT when there is no semaphore
    static std::unique_ptr<SlotLocks> open();

    /// The semaphore's file.
    const struct stat& file() const { return m_file; }

    /// @return false when somebody is closing the gate
    bool enterGate();
    void leaveGate();
    /// Waits for those inside, each of which leaves soon.
    /// @return false when somebody stays inside
    bool closeGate();

    void mayHold(bool may);
    /// What another process does.
    Part partOf(pid_t process) const;
    /// A process that may hold the semaphore, this one excepted; 0 when there is none.
    pid_t holder() const;

private:
    SlotLocks(int file, const struct stat& status) : m_descriptor(file), m_file(status) {}
    bool set(short type, off_t byte);

    UniqueDescriptor m_descriptor;
    struct stat m_file;
};

}  // namespace quillon

#endif
