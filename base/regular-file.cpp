#include "base/regular-file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quillon {
namespace {

/// @return how many bytes there were, at most size; -1 with errno telling why
ssize_t readUpTo(int fd, void* data, std::size_t size)
{
    auto* const bytes = static_cast<char*>(data);
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t count =
            uninterrupted([&] { return read(fd, bytes + filled, size - filled); });
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(filled);
}

bool sameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

FileResult openRegularFile(const char* path, int extraFlags, UniqueFd& fd, struct stat& opened)
{
    // Looked at before it is opened, since opening a device may already do something; and once
    // more by descriptor, since the path may name something else by then.
    const bool follows = (extraFlags & O_NOFOLLOW) == 0;
    if ((follows ? stat(path, &opened) : lstat(path, &opened)) != 0) {
        return errno == ENOENT ? FileResult::kMissing : FileResult::kFailed;
    }
    if (!S_ISREG(opened.st_mode)) {
        return FileResult::kNotRegular;
    }
    // Without O_NONBLOCK the opening of a FIFO would wait for a writer.
    UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | extraFlags));
    if (!file) {
        return errno == ENOENT ? FileResult::kMissing : FileResult::kFailed;
    }
    if (fstat(file.get(), &opened) != 0) {
        return FileResult::kFailed;
    }
    if (!S_ISREG(opened.st_mode)) {
        return FileResult::kNotRegular;
    }
    fd = std::move(file);
    return FileResult::kOk;
}

UniqueFile openRegularStream(const std::string& path, struct stat& opened)
{
    UniqueFd fd;
    if (openRegularFile(path.c_str(), 0, fd, opened) != FileResult::kOk) {
        return nullptr;
    }
    UniqueFile file(fdopen(fd.get(), "rb"));
    if (file) {
        fd.release();
        // Images are read in large blocks; a buffer in between would copy them and split the reads.
        static_cast<void>(std::setvbuf(file.get(), nullptr, _IONBF, 0));
    }
    return file;
}

FileResult readToEnd(int fd, std::size_t limit, SecretBytes& bytes)
{
    // One byte more than allowed, to see that there is more. The size that fstat tells is not
    // trusted: the file may be growing.
    SecretBytes buffer(limit + 1);
    const ssize_t filled = readUpTo(fd, buffer.data(), buffer.size());
    if (filled < 0) {
        return FileResult::kFailed;
    }
    buffer.resize(static_cast<std::size_t>(filled));
    if (buffer.size() > limit) {
        return FileResult::kTooLarge;
    }
    bytes = std::move(buffer);
    return FileResult::kOk;
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit,
                                           int extraFlags)
{
    UniqueFd fd;
    struct stat opened = {};
    if (openRegularFile(path.c_str(), extraFlags, fd, opened) != FileResult::kOk ||
        opened.st_size > static_cast<off_t>(limit)) {
        return std::nullopt;
    }
    std::string content(static_cast<std::size_t>(opened.st_size), '\0');
    const bool isWhole = readUpTo(fd.get(), content.data(), content.size()) == opened.st_size;
    return isWhole ? std::optional(std::move(content)) : std::nullopt;
}

bool isStillSameFile(const std::string& path, const struct stat& opened)
{
    struct stat now = {};
    return stat(path.c_str(), &now) == 0 && now.st_dev == opened.st_dev &&
           now.st_ino == opened.st_ino && now.st_size == opened.st_size &&
           sameTime(now.st_mtim, opened.st_mtim) && sameTime(now.st_ctim, opened.st_ctim);
}

}  // namespace quillon
