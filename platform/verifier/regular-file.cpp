#include "regular-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "image-error.h"

namespace quillon {
namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& reason)
{
    throw ImageError(ImageFault::File, path + ": cannot be read: " + reason);
}

void requireRegular(const std::string& path, const struct stat& status)
{
    if (S_ISDIR(status.st_mode)) {
        refuse(path, "is a directory");
    }
    if (!S_ISREG(status.st_mode)) {
        refuse(path, "not a regular file");
    }
}

}  // namespace

RegularFile::RegularFile(const std::string& path) : _path(path)
{
    // Looked at before it is opened, since opening alone already acts on some devices.
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        refuse(path, std::strerror(errno));
    }
    requireRegular(path, status);

    // The path may name something else by now: O_NONBLOCK keeps a FIFO from stopping us here.
    _descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (_descriptor < 0) {
        refuse(path, std::strerror(errno));
    }
    try {
        if (fstat(_descriptor, &status) != 0) {
            refuse(path, std::strerror(errno));
        }
        requireRegular(path, status);
    } catch (...) {
        close(_descriptor);
        throw;
    }
    _size = static_cast<std::uint64_t>(status.st_size);
}

RegularFile::~RegularFile()
{
    close(_descriptor);
}

void RegularFile::readAt(std::uint64_t offset, unsigned char* buffer, std::size_t length) const
{
    while (length > 0) {
        const ssize_t count = pread(_descriptor, buffer, length, static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            refuse(_path, std::strerror(errno));
        }
        if (count == 0) {
            refuse(_path, "ends too early");
        }
        const auto read = static_cast<std::size_t>(count);
        buffer += read;
        offset += read;
        length -= read;
    }
}

std::string readSmallFile(const std::string& path, std::size_t limit)
{
    const RegularFile file(path);
    if (file.size() > limit) {
        refuse(path, "longer than " + std::to_string(limit) + " bytes");
    }
    std::string content(static_cast<std::size_t>(file.size()), '\0');
    file.readAt(0, reinterpret_cast<unsigned char*>(content.data()), content.size());
    return content;
}

}  // namespace quillon
