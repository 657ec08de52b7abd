#include "base/replace-file.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/alphanumeric.h"
#include "base/fd.h"
#include "base/signals-blocked.h"

namespace quillon {

namespace {

constexpr const char* kAnyLetters = "XXXXXX";

/// Holds back the signal that would end a process whose file has reached its size limit. On this
/// thread alone: the programs that are started meanwhile, and other threads, do not notice.
class SizeSignalHeld
{
public:
    SizeSignalHeld() { pthread_sigmask(SIG_BLOCK, &signal_, &before_); }
    ~SizeSignalHeld()
    {
        const int reason = errno;
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = reason;
    }
    SizeSignalHeld(const SizeSignalHeld&) = delete;
    SizeSignalHeld& operator=(const SizeSignalHeld&) = delete;

    /// To be called when a write has failed. Leaves errno alone.
    void forget() const
    {
        if (errno != EFBIG || sigismember(&before_, SIGXFSZ) == 1) {
            return;
        }
        constexpr timespec kNow = {0, 0};
        sigtimedwait(&signal_, nullptr, &kNow);
        errno = EFBIG;
    }

private:
    const sigset_t signal_ = signalSet({SIGXFSZ});
    sigset_t before_ = {};
};

/// Removes a file that no living process writes, if this user has made it.
void removeLeftOver(int directory, const char* name)
{
    const UniqueFd fd(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_uid == geteuid() && flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
        unlinkat(directory, name, 0);
    }
}

/// Removes what writers have left that were killed.
/// @param start  of the names, without the letters at their end
void removeLeftOvers(const std::string& path, const std::string& start)
{
    const std::unique_ptr<DIR, ReleaseWith<&closedir>> directory(opendir(path.c_str()));
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (name.size() == start.size() + std::strlen(kAnyLetters) &&
            name.compare(0, start.size(), start) == 0 &&
            std::all_of(name.begin() + static_cast<std::ptrdiff_t>(start.size()), name.end(),
                        isLetterOrDigit)) {
            removeLeftOver(dirfd(directory.get()), entry->d_name);
        }
    }
}

/// Makes a file of mode 0600 with a lock, which tells other writers that it is no left-over.
/// @param[in,out] path  ends in kAnyLetters, which are replaced
UniqueFd makeLocked(std::string& path)
{
    const std::string wanted = path;
    for (;;) {
        UniqueFd fd(mkostemp(path.data(), O_CLOEXEC));
        struct stat status = {};
        // Without locks nobody takes it for a left-over either.
        if (!fd || flock(fd.get(), LOCK_EX) != 0 || fstat(fd.get(), &status) != 0 ||
            status.st_nlink != 0) {
            return fd;
        }
        path = wanted;  // taken for one before it had its lock
    }
}

}  // namespace

bool makeDirectories(const std::string& path, mode_t mode)
{
    for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        if (mkdir(path.substr(0, at).c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

bool writeAll(int fd, const void* data, std::size_t size)
{
    const auto* next = static_cast<const char*>(data);
    const SizeSignalHeld held;
    while (size > 0) {
        const ssize_t count = uninterrupted([&] { return write(fd, next, size); });
        if (count < 0) {
            held.forget();
            return false;
        }
        next += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

bool syncDirectory(const std::string& directory)
{
    const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0;
}

bool replaceFile(const std::string& directory, const std::string& name, const SecretBytes& bytes,
                 mode_t mode)
{
    const std::string target = directory + "/" + name;
    const std::string start = "." + name + ".new-";
    removeLeftOvers(directory, start);
    std::string temporary = directory + "/" + start + kAnyLetters;
    const UniqueFd fd = makeLocked(temporary);
    if (!fd) {
        return false;
    }
    if (fchmod(fd.get(), mode) != 0 || !writeAll(fd.get(), bytes.data(), bytes.size()) ||
        fsync(fd.get()) != 0 || rename(temporary.c_str(), target.c_str()) != 0) {
        const int reason = errno;
        unlink(temporary.c_str());
        errno = reason;
        return false;
    }
    return syncDirectory(directory);
}

}  // namespace quillon
