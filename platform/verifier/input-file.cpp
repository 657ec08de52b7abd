#include "platform/verifier/input-file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "base/regular-file.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& reason)
{
    throw ImageError(ImageFault::kFile, path + ": cannot be read: " + reason);
}

}  // namespace

InputFile::InputFile(const std::string& path) : path_(path)
{
    struct stat opened = {};
    switch (openRegularFile(path.c_str(), 0, fd_, opened)) {
        case FileResult::kOk:
            break;
        case FileResult::kNotRegular:
            refuse(path, S_ISDIR(opened.st_mode) ? "is a directory" : "not a regular file");
        default:
            refuse(path, std::strerror(errno));
    }
    size_ = static_cast<std::uint64_t>(opened.st_size);
}

void InputFile::readAt(std::uint64_t offset, unsigned char* buffer, std::size_t length) const
{
    while (length > 0) {
        const ssize_t count = uninterrupted(
            [&] { return pread(fd_.get(), buffer, length, static_cast<off_t>(offset)); });
        if (count < 0) {
            refuse(path_, std::strerror(errno));
        }
        if (count == 0) {
            refuse(path_, "ends too early");
        }
        const auto read = static_cast<std::size_t>(count);
        buffer += read;
        offset += read;
        length -= read;
    }
}

void InputFile::readPieces(
    std::uint64_t offset, std::uint64_t end,
    const std::function<void(const unsigned char* data, std::size_t length)>& consume) const
{
    std::vector<unsigned char> piece(65536);
    while (offset < end) {
        const auto length =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), end - offset));
        readAt(offset, piece.data(), length);
        consume(piece.data(), length);
        offset += length;
    }
}

std::string readSmallFile(const std::string& path, std::size_t limit)
{
    const InputFile file(path);
    if (file.size() > limit) {
        refuse(path, "longer than " + std::to_string(limit) + " bytes");
    }
    std::string content(static_cast<std::size_t>(file.size()), '\0');
    file.readAt(0, reinterpret_cast<unsigned char*>(content.data()), content.size());
    return content;
}

}  // namespace quillon
