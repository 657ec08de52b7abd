#include "tools/quillon-image/atomic-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

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

void syncFolder(const std::string& path)
{
    const int folder = open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        refuse(path);
    }
    const int result = fsync(folder);
    close(folder);
    // Some file systems of sticks cannot sync a folder; the file itself is on the disk by now.
    if (result != 0 && errno != EINVAL) {
        refuse(path);
    }
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
    _descriptor = mkostemp(_temporary.data(), O_CLOEXEC);  // mode 0600
    if (_descriptor < 0) {
        refuse(path);
    }
    if (audience == Audience::Everyone) {
        // A stick's file system may have no modes to change; the content is no secret either way.
        static_cast<void>(fchmod(_descriptor, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
    }
}

AtomicFile::~AtomicFile()
{
    if (_descriptor >= 0) {
        close(_descriptor);
        unlink(_temporary.c_str());
    }
}

void AtomicFile::write(const unsigned char* data, std::size_t length)
{
    while (length > 0) {
        const ssize_t count = ::write(_descriptor, data, length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            refuse(_path);
        }
        data += count;
        length -= static_cast<std::size_t>(count);
    }
}

void AtomicFile::commit()
{
    if (fsync(_descriptor) != 0) {
        refuse(_path);
    }
    if (std::rename(_temporary.c_str(), _path.c_str()) != 0) {
        refuse(_path);
    }
    close(_descriptor);
    _descriptor = -1;
    syncFolder(_path);
}

void writeFile(const std::string& path, const std::string& content, Audience audience)
{
    AtomicFile file(path, audience);
    file.write(reinterpret_cast<const unsigned char*>(content.data()), content.size());
    file.commit();
}

}  // namespace quillon
