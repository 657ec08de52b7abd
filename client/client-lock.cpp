#include "client-lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace quillon {

namespace {

constexpr auto kRetryInterval = std::chrono::milliseconds(20);
constexpr mode_t kEveryonesFile = 0666;

Error cannot(const char* what, const std::string& path)
{
    return {ErrorCode::kSystem,
            std::string("cannot ") + what + " the lock file " + path + ": " + std::strerror(errno)};
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

Error busy(int file)
{
    char text[32] = {};
    long holder = 0;
    if (pread(file, text, sizeof text - 1, 0) > 0) {
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
    [[maybe_unused]] const int result = ftruncate(file, 0);
}

void writeHolder(int file)
{
    // Only a help for people: the lock holds without it.
    const std::string text = std::to_string(getpid()) + "\n";
    eraseHolder(file);
    [[maybe_unused]] const ssize_t written = pwrite(file, text.data(), text.size(), 0);
}

}  // namespace

Error ClientLock::acquire(const std::string& path, const Deadline& deadline)
{
    release();
    while (true) {
        const int file = openOrCreate(path);
        if (file == -1) {
            return cannot("open", path);
        }
        struct stat status = {};
        if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
            ::close(file);
            return {ErrorCode::kSystem, "the lock file " + path + " is not a regular file"};
        }
        if (flock(file, LOCK_EX | LOCK_NB) == 0) {
            m_file = file;
            m_owner = getpid();
            writeHolder(file);
            return {};
        }
        Error error = busy(file);
        ::close(file);
        if (deadline.passed()) {
            return error;
        }
        std::this_thread::sleep_for(kRetryInterval);
    }
}

void ClientLock::release()
{
    if (m_file == -1) {
        return;
    }
    // A child that was forked off shares the lock: this process unlocks for both by saying so, and
    // a child that ends must not take it away from its parent.
    if (m_owner == getpid()) {
        eraseHolder(m_file);  // whoever finds the lock taken next must not be told of this one
        flock(m_file, LOCK_UN);
    }
    ::close(m_file);
    m_file = -1;
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
