#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "base/fd.h"

namespace quillon {

/// A regular file, opened for reading.
///
/// A FIFO, a device or a directory is refused without waiting for it or waking it up. Symbolic
/// links are followed.
/// Every failure is an ImageError with ImageFault::kFile.
class InputFile
{
public:
    explicit InputFile(const std::string& path);

    const std::string& path() const { return path_; }

    /// @return the size in bytes when the file was opened.
    std::uint64_t size() const { return size_; }

    /// Reads exactly length bytes at an offset; an end of file before that is a failure.
    void readAt(std::uint64_t offset, unsigned char* buffer, std::size_t length) const;

    /// Hands the bytes from offset to end to a consumer, 64 KiB at a time.
    void readPieces(
        std::uint64_t offset, std::uint64_t end,
        const std::function<void(const unsigned char* data, std::size_t length)>& consume) const;

private:
    std::string path_;
    UniqueFd fd_;
    std::uint64_t size_ = 0;
};

/// Reads a small file whole.
/// @param limit  most bytes that are accepted; a longer file is a failure
std::string readSmallFile(const std::string& path, std::size_t limit);

}  // namespace quillon
