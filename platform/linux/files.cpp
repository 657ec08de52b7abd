#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

namespace quillon {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other) {
        reset();
        fd_ = other.release();
    }
    return *this;
}

int UniqueFd::release()
{
    return std::exchange(fd_, -1);
}

void UniqueFd::reset()
{
    if (fd_ < 0) {
        return;
    }
    const int callersErrno = errno;
    close(release());
    errno = callersErrno;
}

FileResult openRegularFile(const char* path, int extraFlags, UniqueFd& fd)
{
    // Without O_NONBLOCK the opening of a FIFO would wait for a writer.
    UniqueFd opened(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | extraFlags));
    if (!opened) {
        if (errno == ENOENT) {
            return FileResult::kMissing;
        }
        // ELOOP: a link that was not to be followed; ENXIO: a socket.
        return errno == ELOOP || errno == ENXIO ? FileResult::kNotRegular : FileResult::kFailed;
    }
    struct stat status = {};
    if (fstat(opened.get(), &status) != 0) {
        return FileResult::kFailed;
    }
    if (!S_ISREG(status.st_mode)) {
        return FileResult::kNotRegular;
    }
    fd = std::move(opened);
    return FileResult::kOk;
}

FileResult readToEnd(int fd, std::size_t limit, SecretBytes& bytes)
{
    // One byte more than allowed, to see that there is more. The size that fstat tells is not
    // trusted: the file may be growing.
    SecretBytes buffer(limit + 1);
    std::size_t filled = 0;
    while (filled < buffer.size()) {
        const ssize_t count = read(fd, buffer.data() + filled, buffer.size() - filled);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return FileResult::kFailed;
        }
        if (count == 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    if (filled > limit) {
        return FileResult::kTooLarge;
    }
    buffer.resize(filled);
    bytes = std::move(buffer);
    return FileResult::kOk;
}

bool makeFolders(const std::string& path, mode_t mode)
{
    for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        if (mkdir(path.substr(0, at).c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

namespace {

bool writeAndSync(int fd, const SecretBytes& bytes)
{
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = write(fd, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return fsync(fd) == 0;
}

bool syncFolder(const std::string& folder)
{
    const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0;
}

}  // namespace

bool replaceFile(const std::string& folder, const std::string& name, const SecretBytes& bytes,
                 mode_t mode)
{
    const std::string target = folder + "/" + name;
    std::string temporary = folder + "/." + name + ".XXXXXX";
    const UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
    if (!fd) {
        return false;
    }
    if (fchmod(fd.get(), mode) != 0 || !writeAndSync(fd.get(), bytes) ||
        rename(temporary.c_str(), target.c_str()) != 0) {
        const int reason = errno;
        unlink(temporary.c_str());
        errno = reason;
        return false;
    }
    return syncFolder(folder);
}

}  // namespace quillon
