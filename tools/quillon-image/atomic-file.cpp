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
    throw ImageError(ImageFault::File, path + ": cannot be written: " + std::strerror(errno));
}

std::string folderOf(const std::string& path)
{
    const std::string folder = std::filesystem::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

}  // namespace

AtomicFile::AtomicFile(const std::string& path, Audience audience)
    : _path(path), _temporary(path + ".XXXXXX")
{
    // Renaming over a device node or a FIFO would replace it, which nobody means to do.
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw ImageError(ImageFault::File, path + ": cannot be written: not a regular file");
    }
    _descriptor = UniqueFd(mkostemp(_temporary.data(), O_CLOEXEC));  // mode 0600
    if (!_descriptor) {
        refuse(path);
    }
    if (audience == Audience::Everyone) {
        // A stick's file system may have no modes to change; the content is no secret either way.
        static_cast<void>(fchmod(_descriptor.get(), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
    }
}

AtomicFile::~AtomicFile()
{
    if (_descriptor) {
        unlink(_temporary.c_str());
    }
}

void AtomicFile::write(const unsigned char* data, std::size_t length)
{
    if (!writeAll(_descriptor.get(), data, length)) {
        refuse(_path);
    }
}

void AtomicFile::commit()
{
    if (fsync(_descriptor.get()) != 0 || std::rename(_temporary.c_str(), _path.c_str()) != 0) {
        refuse(_path);
    }
    _descriptor.reset();
    // Some file systems of sticks cannot sync a folder; the file itself is on the disk by now.
    if (!syncFolder(folderOf(_path)) && errno != EINVAL) {
        refuse(_path);
    }
}

void writeFile(const std::string& path, const std::string& content, Audience audience)
{
    AtomicFile file(path, audience);
    file.write(reinterpret_cast<const unsigned char*>(content.data()), content.size());
    file.commit();
}

}  // namespace quillon
