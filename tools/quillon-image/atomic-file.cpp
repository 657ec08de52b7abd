#include "tools/quillon-image/atomic-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "base/replace-file.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

[[noreturn]] void refuse(const std::string& path)
{
    throw ImageError(ImageFault::kFile, path + ": cannot be written: " + std::strerror(errno));
}

}  // namespace

AtomicFile::AtomicFile(const std::string& path, Audience audience)
    : path_(path), temporary_(path + ".XXXXXX")
{
    // Renaming over a device node or a FIFO would replace it, which nobody means to do.
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw ImageError(ImageFault::kFile, path + ": cannot be written: not a regular file");
    }
    descriptor_ = UniqueFd(mkostemp(temporary_.data(), O_CLOEXEC));  // mode 0600
    if (!descriptor_) {
        refuse(path);
    }
    if (audience == Audience::kEveryone) {
        // A stick's file system may have no modes to change; the content is no secret either way.
        static_cast<void>(fchmod(descriptor_.get(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
    }
}

AtomicFile::~AtomicFile()
{
    if (descriptor_) {
        unlink(temporary_.c_str());
    }
}

void AtomicFile::write(const unsigned char* data, std::size_t length)
{
    if (!writeAll(descriptor_.get(), data, length)) {
        refuse(path_);
    }
}

void AtomicFile::commit()
{
    if (fsync(descriptor_.get()) != 0 || std::rename(temporary_.c_str(), path_.c_str()) != 0) {
        refuse(path_);
    }
    descriptor_.reset();
    // Some file systems of sticks cannot sync a directory; the file itself is on the disk by now.
    const std::filesystem::path directory = std::filesystem::path(path_).parent_path() / ".";
    if (!syncDirectory(directory) && errno != EINVAL) {
        refuse(path_);
    }
}

void writeFile(const std::string& path, const std::string& content, Audience audience)
{
    AtomicFile file(path, audience);
    file.write(reinterpret_cast<const unsigned char*>(content.data()), content.size());
    file.commit();
}

}  // namespace quillon
