#include "client/client-lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

namespace quillon {

namespace {

constexpr auto kRetryInterval = std::chrono::milliseconds(20);
constexpr mode_t kEveryonesFile = 0666;
constexpr const char* kNotRegular = "it is not a regular file";

/// @return the error, with who has to remove what if there is something in the way
Error unusable(const std::string& path, const std::string& why)
{
    std::string text = "cannot use the lock file " + path + ": " + why;
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0) {
        text += "; if no client is running, remove it as root or as user " +
                std::to_string(status.st_uid) + ", who owns it";
    }
    return {ErrorCode::kSystem, text};
}

/// @param error  the errno of the attempt
Error cannotOpen(const std::string& path, int error)
{
    if (error == ELOOP) {
        return unusable(path, "it is a symbolic link");
    }
    return unusable(path, error == EISDIR ? kNotRegular : std::strerror(error));
}

/// Opens without creating where the file exists: in a sticky directory the kernel may refuse
/// O_CREAT on somebody else's file even though its mode would let us write.
int openOrCreate(const std::string& path)
{
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    while (true) {
        const int existing = ::open(path.c_str(), kFlags);
        if (existing != -1 || errno != ENOENT) {
            return existing;
        }
        const int created = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, kEveryonesFile);
        if (created != -1) {
            fchmod(created, kEveryonesFile);  // the umask has taken bits away
            return created;
        }
        if (errno != EEXIST) {
            return -1;
        }
    }
}

bool isAt(const std::string& path, const struct stat& opened)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && status.st_dev == opened.st_dev &&
           status.st_ino == opened.st_ino;
}

/// Whether nothing keeps the file from being the lock. Everybody who can open the lock may give it
/// a second name, so that alone is no fault. A file that was made for everybody is the lock, or one
/// that everybody may lock anyway.
bool isLock(const struct stat& status)
{
    return status.st_nlink == 1 || (status.st_mode & ALLPERMS) == kEveryonesFile;
}

/// A file with a second name may be somebody's data: it is only locked, neither read nor written.
bool keepsHolder(int file)
{
    struct stat status = {};
    return fstat(file, &status) == 0 && status.st_nlink == 1;
}

Error busy(int file)
{
    char text[32] = {};
    long holder = 0;
    if (keepsHolder(file) && pread(file, text, sizeof text - 1, 0) > 0) {
        holder = std::strtol(text, nullptr, 10);
    }
    std::string who = "another client is using the update service";
    if (holder > 0) {
        who += " (process " + std::to_string(holder) + ")";
    }
    return {ErrorCode::kBusy, who};
}

void eraseHolder(int file)
{
    if (keepsHolder(file)) {
        [[maybe_unused]] const int result = ftruncate(file, 0);
    }
}

void writeHolder(int file)
{
    // Only a help for people: the lock holds without it.
    if (!keepsHolder(file)) {
        return;
    }
    const std::string text = std::to_string(getpid()) + "\n";
    eraseHolder(file);
    [[maybe_unused]] const ssize_t written = pwrite(file, text.data(), text.size(), 0);
}

}  // namespace

Error ClientLock::acquire(const std::string& path, const Deadline& deadline)
{
    release();
    bool isReplaced = false;
    while (true) {
        UniqueFd file(openOrCreate(path));
        if (!file) {
            return cannotOpen(path, errno);
        }
        // Anybody may have put anything here.
        struct stat status = {};
        if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return unusable(path, kNotRegular);
        }
        if (!isLock(status)) {
            return unusable(path, "it is another name of a file that is not open to everybody");
        }
        const bool isFree = flock(file.get(), LOCK_EX | LOCK_NB) == 0;
        if (isFree && isAt(path, status)) {
            file_ = std::move(file);
            owner_ = getpid();
            writeHolder(file_.get());
            return {};
        }
        if (isFree && !std::exchange(isReplaced, true)) {
            continue;  // it was replaced meanwhile: the new one is what others lock
        }
        Error error = busy(file.get());
        file.reset();
        if (deadline.passed()) {
            return error;
        }
        std::this_thread::sleep_for(kRetryInterval);
    }
}

void ClientLock::release()
{
    // A child that was forked off shares the lock: this process unlocks for both by saying so, and
    // a child that ends must not take it away from its parent.
    if (file_ && owner_ == getpid()) {
        eraseHolder(file_.get());  // whoever finds the lock taken next must not be told of this one
        flock(file_.get(), LOCK_UN);
    }
    file_.reset();
}

std::string ClientLock::defaultPath()
{
    constexpr mode_t kShared = S_IWOTH | S_ISVTX;
    struct stat status = {};
    const bool shared = stat("/run/lock", &status) == 0 && S_ISDIR(status.st_mode) &&
                        (status.st_mode & kShared) == kShared;
    return shared ? "/run/lock/quillon-client.lock" : "/tmp/quillon-client.lock";
}

}  // namespace quillon
