#include "helpers/lifecycle/taken-name.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "base/fd.h"
#include "helpers/lifecycle/unit-failure.h"

namespace quillon::unit {

namespace {

/// A directory of root's beside a name, so that renaming stays within one file system.
class PrivateDirectory
{
public:
    explicit PrivateDirectory(const std::string& neighbour)
        : path_(neighbour.substr(0, neighbour.rfind('/')) + "/.quillon-XXXXXX"),
          entry_(path_ + "/entry")
    {
        if (mkdtemp(path_.data()) == nullptr) {
            failWithErrno("cannot make " + path_);
        }
        path_.copy(entry_.data(), path_.size());
    }

    ~PrivateDirectory()
    {
        static_cast<void>(std::remove(entry_.c_str()));
        if (rmdir(path_.c_str()) != 0) {
            try {
                say(Priority::kWarning, "what somebody had put in the way is in " + path_ + " now");
            } catch (const std::exception&) {
                // No memory to say it.
            }
        }
    }

    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    const std::string& entry() const { return entry_; }

private:
    std::string path_;
    std::string entry_;
};

int renameWith(unsigned flags, const std::string& from, const std::string& to)
{
    return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags);
}

/// Any user may have mounted something of FUSE's on a directory of theirs.
bool isCuredByUnmounting(const std::string& path)
{
    return errno == EBUSY && umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0;
}

/// Not every file system can exchange two names; then a directory in the way is an error.
bool cannotExchange()
{
    return errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
}

/// The loop ends: each round that fails has seen somebody else change the name meanwhile.
void moveTo(const PrivateDirectory& directory, const std::string& path)
{
    const std::string& ours = directory.entry();
    while (renameWith(RENAME_EXCHANGE, ours, path) != 0) {
        if (isCuredByUnmounting(path)) {
            continue;
        }
        if (cannotExchange()) {
            if (rename(ours.c_str(), path.c_str()) != 0) {
                failWithErrno("cannot make " + path);
            }
            return;
        }
        if (errno != ENOENT) {
            failWithErrno("cannot make " + path);
        }
        if (renameWith(RENAME_NOREPLACE, ours, path) == 0) {
            return;
        }
        if (errno != EEXIST) {
            failWithErrno("cannot make " + path);
        }
    }
}

}  // namespace

void putFile(const std::string& path, uid_t owner, gid_t group, mode_t mode,
             std::string_view content)
{
    const PrivateDirectory directory(path);
    const UniqueFd file(
        open(directory.entry().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (file.get() == -1 ||
        write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        fchmod(file.get(), mode) != 0 || fchown(file.get(), owner, group) != 0) {
        failWithErrno("cannot make " + directory.entry());
    }
    moveTo(directory, path);
}

void putDeadLink(const std::string& path, const std::string& target, uid_t owner, gid_t group)
{
    const PrivateDirectory directory(path);
    if (symlink(target.c_str(), directory.entry().c_str()) != 0 ||
        lchown(directory.entry().c_str(), owner, group) != 0) {
        failWithErrno("cannot make " + directory.entry());
    }
    moveTo(directory, path);
}

void clear(const std::string& path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
        return;
    }
    if (unlink(path.c_str()) == 0 || errno == ENOENT) {
        return;
    }
    const PrivateDirectory directory(path);
    while (rename(path.c_str(), directory.entry().c_str()) != 0) {
        if (errno == ENOENT) {
            return;
        }
        if (!isCuredByUnmounting(path)) {
            failWithErrno("cannot remove " + path);
        }
    }
}

}  // namespace quillon::unit
