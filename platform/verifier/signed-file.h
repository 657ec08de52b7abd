#ifndef QUILLON_PLATFORM_VERIFIER_SIGNED_FILE_H
#define QUILLON_PLATFORM_VERIFIER_SIGNED_FILE_H

#include <openssl/evp.h>

#include <string>

#include "image-trailer.h"
#include "regular-file.h"

namespace quillon {

/// Sets a signing or verifying context to the trailer's one algorithm.
/// @return whether OpenSSL took it.
bool useImagePadding(EVP_PKEY_CTX* context);

/// A file that ends in a signature trailer.
///
/// Opening reads the trailer only, so a file without one is refused at once whatever its size.
class SignedFile
{
public:
    /// @throws ImageError: ImageFault::File when it cannot be read, ImageFault::Signature when it
    ///         has no usable trailer.
    explicit SignedFile(const std::string& path);

    const RegularFile& file() const { return _file; }
    const ImageTrailer& trailer() const { return _trailer; }

    /// @return the number of signed bytes, all before the trailer.
    std::uint64_t contentSize() const { return _file.size() - kTrailerSize; }

    /// Reads the whole content, in pieces, and checks the signature over it.
    /// @param key  an RSA-4096 public key
    /// @throws ImageError: ImageFault::Signature when the signature is not this key's over this
    ///         content, ImageFault::File when the content cannot be read.
    void requireSignatureOf(EVP_PKEY* key) const;

private:
    RegularFile _file;
    ImageTrailer _trailer;
};

}  // namespace quillon

#endif
