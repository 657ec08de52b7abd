#include "support/regular-file.h"

#include <fcntl.h>

namespace quillon {
namespace {

bool sameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

UniqueFile openRegularFile(const std::string& path, struct stat& opened)
{
    // Looked at before it is opened, since opening a device may already do something; and once
    // more by descriptor, since the stick may have been changed in between.
    if (stat(path.c_str(), &opened) != 0 || !S_ISREG(opened.st_mode)) {
        return nullptr;
    }
    UniqueDescriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (descriptor.get() == -1 || fstat(descriptor.get(), &opened) != 0 ||
        !S_ISREG(opened.st_mode)) {
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

bool isStillSameFile(const std::string& path, const struct stat& opened)
{
    struct stat now = {};
    return stat(path.c_str(), &now) == 0 && now.st_dev == opened.st_dev &&
           now.st_ino == opened.st_ino && now.st_size == opened.st_size &&
           sameTime(now.st_mtim, opened.st_mtim) && sameTime(now.st_ctim, opened.st_ctim);
}

}  // namespace quillon
