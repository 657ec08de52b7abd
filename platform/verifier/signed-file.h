#pragma once

#include <string>

#include "platform/verifier/image-signature.h"
#include "platform/verifier/image-trailer.h"
#include "platform/verifier/input-file.h"

namespace quillon {

/// A file that ends in a signature trailer.
///
/// Opening reads the trailer only, so a file without one is refused at once whatever its size.
class SignedFile
{
public:
    /// @throws ImageError: ImageFault::kFile when it cannot be read, ImageFault::kSignature when it
    ///         has no usable trailer.
    explicit SignedFile(const std::string& path);

    const InputFile& file() const { return file_; }
    const ImageTrailer& trailer() const { return trailer_; }

    /// @return the number of signed bytes, all before the trailer.
    std::uint64_t contentSize() const { return file_.size() - kTrailerSize; }

    /// Reads the whole content, in pieces.
    /// @throws ImageError with ImageFault::kFile when the content cannot be read.
    ContentDigest contentDigest() const;

private:
    InputFile file_;
    ImageTrailer trailer_;
};

}  // namespace quillon
