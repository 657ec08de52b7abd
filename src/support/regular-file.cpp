#include "support/regular-file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace quillon {
namespace {

bool sameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// @return -1 when there is no such regular file
int openDescriptor(const std::string& path, struct stat& opened)
{
    // Looked at before it is opened, since opening a device may already do something; and once
    // more by descriptor, since the stick may have been changed in between.
    if (stat(path.c_str(), &opened) != 0 || !S_ISREG(opened.st_mode)) {
        return -1;
    }
    UniqueDescriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (descriptor.get() == -1 || fstat(descriptor.get(), &opened) != 0 ||
        !S_ISREG(opened.st_mode)) {
        return -1;
    }
    return descriptor.release();
}

}  // namespace

UniqueFile openRegularFile(const std::string& path, struct stat& opened)
{
    UniqueDescriptor descriptor(openDescriptor(path, opened));
    if (descriptor.get() == -1) {
        return nullptr;
    }
    UniqueFile file(fdopen(descriptor.get(), "rb"));
    if (file) {
        descriptor.release();
        // Images are read in large blocks; a buffer in between would copy them and split the reads.
        static_cast<void>(std::setvbuf(file.get(), nullptr, _IONBF, 0));
    }
    return file;
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit)
{
    struct stat opened = {};
    const UniqueDescriptor descriptor(openDescriptor(path, opened));
    if (descriptor.get() == -1 || opened.st_size > static_cast<off_t>(limit)) {
        return std::nullopt;
    }
    std::string content(static_cast<std::size_t>(opened.st_size), '\0');
    std::size_t filled = 0;
    while (filled < content.size()) {
        const ssize_t n = read(descriptor.get(), &content[filled], content.size() - filled);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return std::nullopt;
        }
        filled += static_cast<std::size_t>(n);
    }
    return content;
}

bool isStillSameFile(const std::string& path, const struct stat& opened)
{
    struct stat now = {};
    return stat(path.c_str(), &now) == 0 && now.st_dev == opened.st_dev &&
           now.st_ino == opened.st_ino && now.st_size == opened.st_size &&
           sameTime(now.st_mtim, opened.st_mtim) && sameTime(now.st_ctim, opened.st_ctim);
}

}  // namespace quillon
