#include "base/replace-file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/fd.h"
#include "base/signals-blocked.h"

namespace quillon {

namespace {

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
    std::string temporary = directory + "/." + name + ".XXXXXX";
    const UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
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
