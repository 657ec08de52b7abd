#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace quillon {

/// What is wrong, in the classes that a caller can act upon. The values are quillon-image's exit
/// codes.
enum class ImageFault : int {
    kUsage = 2,      ///< the caller asked for something that makes no sense
    kFile = 3,       ///< a file cannot be read or written, or a program for it is missing or failed
    kFormat = 4,     ///< not a stick image, or its size cannot be right
    kSignature = 5,  ///< the signature is missing or wrong
    kKey = 6         ///< a key cannot be used, or is not the one that the image was made with
};

/// The one error of the image code. what() is a single line that names the file and the reason.
class ImageError : public std::runtime_error
{
public:
    ImageError(ImageFault fault, const std::string& reason)
        : std::runtime_error(reason), fault_(fault)
    {
    }

    ImageFault fault() const { return fault_; }

private:
    ImageFault fault_;
};

/// Called with one line for each file of a directory that is of no use and is passed over: such a
/// file must not lock the good ones out.
using Complain = std::function<void(const std::string& line)>;

/// @return the error of a file that does not carry the signature that it should.
inline ImageError notSigned(const std::string& path, const std::string& reason)
{
    return {ImageFault::kSignature, path + ": not signed: " + reason};
}

}  // namespace quillon
