#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/fd.h"

namespace quillon {

enum class PartResult { kOk, kBusy, kFailed };

/// The part of a package that has arrived so far, and its way to the package's own name.
///
/// The part is the file ".<identifier>.<uid>.part" in the packages' directory, locked while the
/// object lives so that two processes do not write into one, and for its owner alone so that nobody
/// else locks it; only as a package do others read it, as the umask says. Each user has a part of
/// their own, since nobody can go on with another one's. Beside it, ".<identifier>.<uid>.resume"
/// notes which file the part is, and which address and which state of the server's file it belongs
/// to.
///
/// A link, a FIFO, another user's file, a file that the note does not name or anything else that
/// stands in the part's place is removed, never written through or resumed. Where the
/// file system has no modes, a part is taken as it is; where it shows another owner than the user,
/// each download begins anew. Thread: one object, one thread. Throws std::bad_alloc.
class DownloadPart
{
public:
    /// @param identifier  letters and digits, at most 127
    /// @param address     where the package comes from
    DownloadPart(std::string identifier, std::string address);
    /// Unlocks the part, also for children that this process has forked off meanwhile. In such a
    /// child itself it only closes the child's copy.
    ~DownloadPart();
    DownloadPart(const DownloadPart&) = delete;
    DownloadPart& operator=(const DownloadPart&) = delete;

    /// Makes the directory when it is missing, and takes up what an earlier download left when a
    /// note of this user names it, this address and this run of the machine: what was not synced
    /// before a power failure may be damaged.
    /// @return kBusy when another process of this user has the part; kFailed with errno telling why
    PartResult open();

    /// How many bytes have arrived.
    std::uint64_t size() const { return size_; }
    /// What the server calls the state of its file (ETag or Last-Modified); empty when it did not
    /// say, or when nothing can be taken up.
    const std::string& validator() const { return validator_; }

    // Each of the next three returns false, with errno telling why, when it could not be done.

    /// Drops what has arrived, to begin with a file of that state.
    bool restart(const std::string& validator);
    bool append(const char* data, std::size_t size);
    /// Syncs the part and gives it the package's name in one step, replacing what was there. Fails
    /// with ESTALE when the file at the part's path is another one by now.
    bool place();
    /// Removes part and note, unless the file at the part's path is another one by now. Leaves
    /// errno as it was.
    void discard();

    /// Why open(), restart() or place() has failed, for people: what errno says and, where a file
    /// is in the way, which one and who can remove it. To be asked at once, while errno still
    /// tells.
    std::string failure() const;

private:
    PartResult openLocked();
    bool isForeign() const;
    bool isStillAtItsPath() const;
    std::string noteHead() const;
    std::string notedValidator() const;
    bool writeNote() const;
    bool removeFile(const std::string& name) const;

    uid_t user_;
    std::string partName_;
    std::string noteName_;
    std::string packageName_;
    std::string address_;
    std::string validator_;
    std::uint64_t size_ = 0;
    UniqueFd directory_;
    UniqueFd file_;
    pid_t owner_ = 0;  // of the lock
};

}  // namespace quillon
